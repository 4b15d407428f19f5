#include "tool_access/CloudHLError.hpp"

void CloudHLError::AddDetailedInfo(const char* text) {
  std::string added = text != nullptr ? text : "";
  if (detailedText.empty()) {
    detailedText = added;
  } else {
    detailedText += "\n" + added;
  }
}

void CloudHLError::PushText(const char* text) {
  // The text it replaces is kept at the head of the details, so a chain of
  // pushes reads newest first.
  if (!errorText.empty()) detailedText = errorText + "\n" + detailedText;
  errorText = text != nullptr ? text : "";
}

void CloudHLError::Delete() { delete this; }
