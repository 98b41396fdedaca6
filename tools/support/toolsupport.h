// What the command-line tools share at run time: the connection to a module, a stop flag raised
// by SIGINT and SIGTERM, and the loop that runs until that flag is raised. The command line is in
// toolcommandline.h.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include <boost/shared_ptr.hpp>

namespace OX {
class OXProxy;
struct ConnectOptions;
}  // namespace OX

namespace oxtools {

constexpr const char* kDeviceModule = "OXVideoDevice";

// Introduces this process as pClientName and connects to pModule of the broker at pUrl, with
// pOptions (--server-key, --client-key, --shared-memory); throws OXError when the broker does not
// answer or hosts no such module.
boost::shared_ptr<OX::OXProxy> connectModule(const std::string& pUrl, const std::string& pModule,
                                             const std::string& pClientName,
                                             const OX::ConnectOptions& pOptions);

// SIGINT and SIGTERM raise a flag instead of ending the process, so that tools can clean up
// (unsubscribe, print their summary) and exit 0.
void installStopHandler();
bool stopRequested();
// Sleeps until pDeadline in short slices; returns false early when a stop was requested.
bool sleepUntil(std::chrono::steady_clock::time_point pDeadline);
// Runs pStep until it returns false or a stop is requested. A signal may cut a call short (the
// remote proxy then throws zmq's "Interrupted system call"): an exception once a stop was
// requested ends the loop, since stopping is what was asked for; any other reaches the caller.
void repeatUntilStopped(const std::function<bool()>& pStep);
// Whether an address to listen on lets clients come only from this machine: 127.0.0.0/8, ::1
// (bracketed or not), localhost, lo. The broker host's message port and its pages share it.
bool isLoopback(std::string pAddress);

}  // namespace oxtools
