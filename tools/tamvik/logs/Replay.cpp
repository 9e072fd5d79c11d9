#include "Replay.h"

#include <algorithm>

#include "EntryChain.h"
#include "Hex.h"
#include "HiveImage.h"

namespace TamvikLogs {

namespace {

// A log belongs to the hive when it was written at the same time. When the
// hive's base block can't be trusted, its first bin's timestamp may serve.
bool Belongs(const LogFile& log, const BaseBlock& primary, std::uint64_t firstBinTime) {
    if (log.base.timestamp == primary.timestamp) return true;
    return !primary.Valid() && firstBinTime != 0 && log.base.timestamp == firstBinTime;
}

// The bins bytes that the hive's own base block vouches for and its file holds.
std::uint64_t Vouched(const Bytes& hive, const BaseBlock& primary) {
    if (!primary.Valid() || hive.size() < kBaseBlockBytes) return 0;
    return std::min<std::uint64_t>(primary.binsSize, hive.size() - kBaseBlockBytes);
}

class Replayer {
public:
    Replayer(const Bytes& hive, const std::vector<LogFile>& logs, ReplayResult& r)
        : hive_(hive), logs_(logs), r_(r), image_(hive) {
        budget_ = hive.size() > kBaseBlockBytes ? hive.size() - kBaseBlockBytes : 0;
        for (const LogFile& log : logs) budget_ += log.bytes.size();
    }

    void Run();

private:
    void ApplyOld(const std::vector<std::size_t>& candidates);
    void ApplyNew(const std::vector<std::size_t>& candidates);
    void Finish(std::uint32_t sequence, std::uint32_t binsSize, std::optional<std::uint32_t> flags);
    void NotUsed(std::size_t kept, const std::vector<std::size_t>& candidates, const std::string& why);
    bool Affordable(std::uint32_t binsSize);

    const Bytes& hive_;
    const std::vector<LogFile>& logs_;
    ReplayResult& r_;
    HiveImage image_;
    std::uint64_t budget_ = 0;  // bins bytes that the hive and the logs could hold between them
};

// Bins the files can't fill would be refused after replay anyway; refusing
// them first keeps a lying size from costing memory.
bool Replayer::Affordable(std::uint32_t binsSize) {
    if (binsSize <= budget_) return true;
    r_.failure = "the logs claim " + Hex(binsSize) + " bytes of bins, more than the hive and its logs hold together";
    return false;
}

void Replayer::Run() {
    r_.primary = ReadBaseBlock(hive_);
    const std::uint64_t firstBinTime = FirstBinTimestamp(hive_);
    std::vector<std::size_t> oldLogs, newLogs;
    for (std::size_t i = 0; i < logs_.size(); ++i) {
        const LogFile& log = logs_[i];
        LogVerdict& v = r_.logs.emplace_back();
        v.path = log.path;
        v.format = log.format;
        v.entries = log.SoundEntries();
        v.pages = log.PageCount();
        if (!log.problem.empty()) {
            v.note = log.problem;
        } else if (!Belongs(log, r_.primary, firstBinTime)) {
            v.note = "its timestamp differs from the hive's: it belongs to another hive, or to an older state of it";
        } else {
            v.applies = true;
            (log.format == LogFormat::Old ? oldLogs : newLogs).push_back(i);
            if (!log.entries.empty() && !log.entries.back().problem.empty())
                v.note =
                    "reading stops at the entry at " + Hex(log.entries.back().at) + ": " + log.entries.back().problem;
        }
    }
    if (!newLogs.empty()) {
        NotUsed(newLogs.front(), oldLogs, "an old-format log is not used beside new-format ones");
        ApplyNew(newLogs);
    } else if (!oldLogs.empty()) {
        ApplyOld(oldLogs);
    } else {
        r_.failure = logs_.empty() ? "no logs" : "none of the logs applies to this hive";
    }
}

// Marks every candidate but the one kept as left out, and why.
void Replayer::NotUsed(std::size_t kept, const std::vector<std::size_t>& candidates, const std::string& why) {
    for (std::size_t i : candidates)
        if (i != kept) {
            r_.logs[i].applies = false;
            r_.logs[i].note = why;
        }
}

// One old-format log holds all the pages that were dirty. Windows turns to
// the second log only when the first one doesn't apply: the first that
// applies, in the order .LOG, .LOG1, .LOG2, is used, and only it.
void Replayer::ApplyOld(const std::vector<std::size_t>& candidates) {
    const std::size_t chosen = candidates.front();
    NotUsed(chosen, candidates, "not used: " + logs_[chosen].path + " comes first");
    const LogFile& log = logs_[chosen];
    r_.format = LogFormat::Old;
    if (!r_.primary.Valid()) image_.TakeBaseBlock(log);
    r_.baseBlockFromLog = !r_.primary.Valid();
    if (!Affordable(log.base.binsSize)) return;
    image_.Grow(log.base.binsSize);
    for (const PageCopy& page : log.dirtyPages) image_.Apply(log, page, log.base.binsSize);
    r_.pages = log.dirtyPages.size();
    r_.logs[chosen].appliedPages = r_.pages;
    // The hive is written as if the interrupted write had ended: one number on.
    Finish(log.base.sequence1 + 1, log.base.binsSize, std::nullopt);
}

// New-format entries are applied in sequence order across the logs. A hive
// whose base block can't be trusted has it from the log with the latest
// entries, and takes entries from that log alone.
void Replayer::ApplyNew(const std::vector<std::size_t>& candidates) {
    r_.format = LogFormat::New;
    std::vector<std::size_t> pool = candidates;
    const bool trusted = r_.primary.Valid();
    if (!trusted) {
        auto latest = [&](std::size_t i) {
            std::uint32_t top = 0;
            for (const LogEntry& e : logs_[i].entries)
                if (e.problem.empty()) top = std::max(top, e.sequence);
            return top;
        };
        std::size_t chosen = candidates.front();
        for (std::size_t i : candidates)
            if (latest(i) > latest(chosen)) chosen = i;
        NotUsed(chosen, candidates,
                "not used: the base block comes from " + logs_[chosen].path + ", with the latest entries");
        pool = {chosen};
        image_.TakeBaseBlock(logs_[chosen]);
        r_.baseBlockFromLog = true;
    }
    const EntryChain chain =
        BuildChain(logs_, pool, trusted ? std::optional<std::uint32_t>(r_.primary.sequence2) : std::nullopt);
    if (chain.steps.empty()) {
        r_.failure = !chain.gap.empty() ? chain.gap
                                        : "no log entry is as new as the hive (its sequence number is " +
                                              std::to_string(r_.primary.sequence2) + ")";
        return;
    }
    r_.incomplete = chain.gap;
    std::uint32_t binsSize = 0, flags = 0;
    for (const EntryRef& step : chain.steps) {
        const LogFile& log = logs_[step.log];
        const LogEntry& e = log.entries[step.entry];
        if (!Affordable(e.binsSize)) return;
        image_.Grow(e.binsSize);
        for (const PageCopy& page : e.pages) image_.Apply(log, page, e.binsSize);
        binsSize = e.binsSize;
        flags = e.flags;
        r_.entries += 1;
        r_.pages += e.pages.size();
        r_.logs[step.log].appliedEntries += 1;
        r_.logs[step.log].appliedPages += e.pages.size();
    }
    r_.firstSequence = logs_[chain.steps.front().log].entries[chain.steps.front().entry].sequence;
    r_.lastSequence = logs_[chain.steps.back().log].entries[chain.steps.back().entry].sequence;
    Finish(r_.lastSequence + 1, binsSize, flags);
}

void Replayer::Finish(std::uint32_t sequence, std::uint32_t binsSize, std::optional<std::uint32_t> flags) {
    if (std::string fault = image_.CheckBins(binsSize, Vouched(hive_, r_.primary)); !fault.empty()) {
        r_.failure = "after replay " + fault + ": the logs don't fit this hive";
        return;
    }
    r_.sequence = sequence;
    r_.binsSize = binsSize;
    r_.image = std::move(image_).Finish(sequence, binsSize, flags);
}

}  // namespace

ReplayResult Replay(const Bytes& hive, const std::vector<LogFile>& logs) {
    ReplayResult r;
    Replayer(hive, logs, r).Run();
    return r;
}

}  // namespace TamvikLogs
