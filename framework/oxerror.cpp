// OXError: construction and the one-line text form.
#include "oxerror.h"

namespace OX {

OXError::OXError(const std::string& pModuleName, const std::string& pFunctionName,
                 const std::string& pDescription, const std::string& pFileName, int pLine)
    : fModuleName(pModuleName),
      fFunctionName(pFunctionName),
      fDescription(pDescription),
      fFileName(pFileName),
      fLine(pLine) {}

std::string OXError::toString() const {
  std::string text = fModuleName + "::" + fFunctionName + ": " + fDescription;
  if (!fFileName.empty()) {
    text += " (" + fFileName + ":" + std::to_string(fLine) + ")";
  }
  return text;
}

}  // namespace OX
