// The log category and levels of the broker host's records.
#pragma once

namespace OX {
namespace net {

constexpr const char* kLogCategory = "net.brokerhost";
enum LogLevel : int { kLogError = 2, kLogWarning = 3, kLogInfo = 4, kLogVerbose = 5 };

}  // namespace net
}  // namespace OX
