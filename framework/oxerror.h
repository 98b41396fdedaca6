// OXError: the one exception type of the framework and of every module.
#pragma once

#include <exception>
#include <string>

namespace OX {

// An error raised by a module: who raised it, in which operation, why, and where in the source.
// what() gives the description alone; toString() gives every field on one line.
class OXError : public std::exception {
 public:
  OXError(const std::string& pModuleName, const std::string& pFunctionName,
          const std::string& pDescription, const std::string& pFileName, int pLine);
  OXError(const OXError&) = default;
  OXError& operator=(const OXError&) = default;
  ~OXError() override = default;

  const char* what() const noexcept override { return fDescription.c_str(); }
  std::string toString() const;

  const std::string& getModuleName() const { return fModuleName; }
  const std::string& getFunctionName() const { return fFunctionName; }
  const std::string& getDescription() const { return fDescription; }
  const std::string& getFileName() const { return fFileName; }
  int getLine() const { return fLine; }

 private:
  std::string fModuleName;
  std::string fFunctionName;
  std::string fDescription;
  std::string fFileName;
  int fLine;
};

}  // namespace OX
