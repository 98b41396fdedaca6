// ki::log: records with a level, a category and a function, delivered to handlers.
//
// Levels: 0 and 1 fatal, 2 error, 3 warning, 4 information, 5 verbose, 6 debug. A lower number is
// more important. A default handler writes records of the stderr threshold or more important to
// stderr; hosts and tests add handlers of their own. All functions here are thread-safe.
#pragma once

#include <functional>
#include <sstream>
#include <string>

namespace ki {
namespace log {

struct Record {
  int level;
  std::string category;
  std::string file;
  std::string function;
  int line;
  std::string message;
};

// The levels by name; -1 as a threshold lets no record through.
constexpr int kLogSilent = -1;
constexpr int kLogFatal = 1;
constexpr int kLogError = 2;
constexpr int kLogWarning = 3;
constexpr int kLogInfo = 4;
constexpr int kLogVerbose = 5;
constexpr int kLogDebug = 6;

using Handler = std::function<void(const Record&)>;

// Adds a handler that sees every record; returns its id for removeHandler. A handler must not
// block for long: it runs on the logging thread.
int addHandler(Handler pHandler);
void removeHandler(int pId);

// Records with a level at or below this number go to stderr (default kLogWarning; -1 silences
// stderr).
void setStderrThreshold(int pLevel);
int getStderrThreshold();
// When true, the stderr handler writes one JSON object per line instead of plain text.
void setStderrJson(bool pJson);

// True when some handler would receive a record of this level: callers may skip building text.
bool isEnabled(int pLevel);

void log(int pLevel, const std::string& pCategory, const std::string& pMessage,
         const std::string& pFile, const std::string& pFunction, int pLine);

// A scoped output stream: everything written to it leaves as one record, line ends included,
// when the stream is destroyed. When no handler wants its level, writes are dropped cheaply.
class LogStream : public std::ostream {
 public:
  LogStream(int pLevel, const std::string& pCategory, const std::string& pFile,
            const std::string& pFunction, int pLine);
  ~LogStream() override;
  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;

 private:
  std::stringbuf fBuffer;
  int fLevel;
  bool fEnabled;
  std::string fCategory;
  std::string fFile;
  std::string fFunction;
  int fLine;
};

}  // namespace log
}  // namespace ki
