#include "ToolError.h"

namespace TamvikTool {

using Tamvik::StatusCode;

int ResultOf(const Tamvik::Status& status, Asked asked) {
    if (status.Ok()) return Result::Ok;
    switch (asked) {
        case Asked::Open:
        case Asked::Change: return Result::Invalid;
        case Asked::Create:
            if (status.code == StatusCode::Exists) return Result::AlreadyExists;
            return status.code == StatusCode::Invalid ? Result::Invalid : Result::CannotCreate;
        case Asked::Read: return status.code == StatusCode::BadData ? Result::MoreData : Result::Invalid;
        case Asked::List: break;
    }
    switch (status.code) {
        case StatusCode::NotFound:
        case StatusCode::Invalid: return Result::Invalid;
        case StatusCode::BadData: return Result::MoreData;
        default: return Result::Corrupt;
    }
}

std::string ResultMeaning(int result) {
    switch (result) {
        case Result::Ok: return "ok";
        case Result::HiveRefused: return "hive refused";
        case Result::CannotCreate: return "can't create subkey";
        case Result::AlreadyExists: return "already exists";
        case Result::Invalid: return "invalid argument or not found";
        case Result::MoreData: return "more data or unreadable data";
        case Result::Corrupt: return "corrupt hive structure";
        default: return "unknown result";
    }
}

std::string DescribeResult(int result) {
    return "(" + ResultMeaning(result) + ", result " + std::to_string(result) + ")";
}

void UsageError(const std::string& message) { throw ToolError(message, kExitUsage); }

}  // namespace TamvikTool
