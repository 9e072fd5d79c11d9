// Virtual disks through qemu-nbd, which libnbd starts on a socket of its own
// (systemd socket activation): no root, no kernel nbd module, no network.
#include <libnbd.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "Block.h"
#include "Subprocess.h"

namespace TamvikImage {
namespace {

// NBD servers may drop a client that asks for more in one request.
constexpr std::size_t kLargestRequest = 32u << 20;

Error NbdFailure(const std::string& what) {
    const char* message = nbd_get_error();
    return Fail(ErrorKind::Io, what + ": " + (message != nullptr ? message : "nbd error"));
}

class NbdBlock : public Block {
public:
    NbdBlock(nbd_handle* handle, std::uint64_t size, bool writable) : Block(size, writable), handle_(handle) {
        const std::int64_t most = nbd_get_block_size(handle_, LIBNBD_SIZE_MAXIMUM);
        const std::int64_t least = nbd_get_block_size(handle_, LIBNBD_SIZE_MINIMUM);
        if (most > 0) request_ = std::min(request_, static_cast<std::size_t>(most));
        if (least > 1) alignment_ = static_cast<std::uint64_t>(least);
    }
    ~NbdBlock() override { Close(); }

    Error Read(std::uint64_t offset, void* buffer, std::size_t length) override {
        if (Error error = Check(offset, length, false, handle_ == nullptr)) return error;
        return Aligned(offset, static_cast<char*>(buffer), length, false);
    }
    Error Write(std::uint64_t offset, const void* buffer, std::size_t length) override {
        if (Error error = Check(offset, length, true, handle_ == nullptr)) return error;
        return Aligned(offset, static_cast<char*>(const_cast<void*>(buffer)), length, true);
    }
    Error Flush() override {
        if (handle_ == nullptr) return Fail(ErrorKind::Io, "the image is closed");
        if (Writable() && nbd_flush(handle_, 0) != 0) return NbdFailure("flush of the image");
        return {};
    }
    // qemu-nbd keeps writes (and qcow2's tables) in its cache: flush first,
    // then the disconnect lets it close the image in order and exit, and
    // nbd_close waits for that exit, so its lock is gone when we return.
    Error Close() override {
        if (handle_ == nullptr) return {};
        Error error = Flush();
        if (nbd_shutdown(handle_, 0) != 0 && !error) error = NbdFailure("disconnect from qemu-nbd");
        nbd_close(handle_);
        handle_ = nullptr;
        return error;
    }

private:
    // A server with a minimum block size (vhdx has 512 bytes) refuses a
    // request that isn't aligned to it: such a request becomes a read, and
    // for a write a change and a write back, of the blocks around it.
    Error Aligned(std::uint64_t offset, char* buffer, std::size_t length, bool write) {
        if (offset % alignment_ == 0 && length % alignment_ == 0) return Requests(offset, buffer, length, write);
        const std::uint64_t first = offset / alignment_ * alignment_;
        const std::uint64_t end = std::min((offset + length + alignment_ - 1) / alignment_ * alignment_, Size());
        std::vector<char> blocks(end - first);
        if (Error error = Requests(first, blocks.data(), blocks.size(), false)) return error;
        if (!write) {
            std::memcpy(buffer, blocks.data() + (offset - first), length);
            return {};
        }
        std::memcpy(blocks.data() + (offset - first), buffer, length);
        return Requests(first, blocks.data(), blocks.size(), true);
    }
    Error Requests(std::uint64_t offset, char* at, std::size_t length, bool write) {
        while (length > 0) {
            const std::size_t step = std::min(length, request_);
            if ((write ? nbd_pwrite(handle_, at, step, offset, 0) : nbd_pread(handle_, at, step, offset, 0)) != 0)
                return NbdFailure(write ? "write to the image" : "read from the image");
            at += step, offset += step, length -= step;
        }
        return {};
    }

    nbd_handle* handle_;
    std::size_t request_ = kLargestRequest;
    std::uint64_t alignment_ = 1;
};

Error StartFailure(const std::string& path, const std::string& said, const std::string& nbdError) {
    const std::string why = said.empty() ? nbdError : said;
    if (said.find("qemu-nbd") != std::string::npos && said.find("not found") != std::string::npos)
        return Fail(ErrorKind::Unsupported, "qemu-nbd is not installed (package qemu-utils)");
    const ErrorKind kind = QemuErrorKind(said, ErrorKind::Unsupported);
    if (kind == ErrorKind::Locked) return Fail(kind, path + ": another process is using the image (" + why + ")");
    return Fail(kind, path + ": qemu-nbd can't serve it: " + why);
}

}  // namespace

std::unique_ptr<Block> OpenNbdBlock(const std::string& path, const std::string& format, bool writable,
                                    Error& error) {
    nbd_handle* handle = nbd_create();
    if (handle == nullptr) {
        error = NbdFailure("nbd_create");
        return nullptr;
    }
    // A shell in front sends qemu-nbd's stderr to our capture (by its /proc
    // name: a POSIX shell takes single-digit descriptors only); exec keeps the
    // process id that socket activation names.
    CapturedStderr captured;
    const std::string redirect = "exec \"$0\" \"$@\" 2>>/proc/self/fd/" + std::to_string(captured.Fd());
    const std::string image = path.find(':') != std::string::npos && path[0] != '/' ? "./" + path : path;
    std::vector<std::string> argv = {"/bin/sh", "-c", redirect, "qemu-nbd", "--format=" + format};
    if (!writable) argv.push_back("--read-only");
    argv.push_back(image);
    std::vector<char*> args;
    for (std::string& arg : argv) args.push_back(arg.data());
    args.push_back(nullptr);
    if (captured.Fd() < 0 || nbd_connect_systemd_socket_activation(handle, args.data()) != 0) {
        const char* nbdError = nbd_get_error();
        error = StartFailure(path, captured.Text("qemu-nbd"), nbdError != nullptr ? nbdError : "no capture file");
        nbd_close(handle);
        return nullptr;
    }
    const std::int64_t size = nbd_get_size(handle);
    if (size < 0 || (writable && nbd_is_read_only(handle) == 1)) {
        error = size < 0 ? NbdFailure("size of the image") : Fail(ErrorKind::Unsupported, path + ": served read-only");
        nbd_shutdown(handle, 0);
        nbd_close(handle);
        return nullptr;
    }
    return std::make_unique<NbdBlock>(handle, static_cast<std::uint64_t>(size), writable);
}

}  // namespace TamvikImage
