#include "source_utilities/hemlockError.hpp"

namespace Qx::Nlv::Hemlock {

const char* const hemlockError::DefaultTitle[5] = {"Information", "Warning", "Error", "Internal",
                                                    "Fatal"};
const char* const hemlockError::UnitializedText = "Uninitialized error text";

namespace {
hemlockErrorIF::Severity_Type checked(hemlockErrorIF::Severity_Type severity) {
  int value = static_cast<int>(severity);
  return (value < 0 || value > 4) ? hemlockErrorIF::Error : severity;
}
}  // namespace

hemlockError::hemlockError() : errorText(UnitializedText) {}
hemlockError::hemlockError(const hemlockError& other) : hemlockErrorIF() { Copy(other); }
hemlockError::hemlockError(Severity_Type s) : errorText(UnitializedText), severity(checked(s)) {}
hemlockError::hemlockError(const std::string& text, Severity_Type s)
    : errorText(text), severity(checked(s)) {}
hemlockError::hemlockError(const char* text, Severity_Type s)
    : errorText(text != nullptr ? text : ""), severity(checked(s)) {}
hemlockError::hemlockError(const std::string& t, const std::string& text, Severity_Type s)
    : title(t), errorText(text), severity(checked(s)) {}
hemlockError::hemlockError(const char* t, const char* text, Severity_Type s)
    : title(t != nullptr ? t : ""), errorText(text != nullptr ? text : ""), severity(checked(s)) {}

hemlockError::~hemlockError() = default;

hemlockError& hemlockError::operator=(const hemlockError& other) {
  Copy(other);
  return *this;
}

const char* hemlockError::GetTitle() {
  // The first reading fixes the title; a later severity change keeps it.
  if (title.empty()) title = DefaultTitle[checked(severity)];
  return title.c_str();
}

void hemlockError::SetTitle(const char* t) {
  if (t != nullptr) title = t;
}
void hemlockError::SetTitle(const std::string& t) { title = t; }

hemlockErrorIF::Severity_Type hemlockError::GetSeverity() const { return severity; }
void hemlockError::SetSeverity(Severity_Type s) { severity = checked(s); }

const char* hemlockError::GetErrorText() const { return errorText.empty() ? "" : errorText.c_str(); }
void hemlockError::SetErrorText(const char* text) {
  if (text != nullptr) errorText = text;
}
void hemlockError::SetErrorText(const std::string& text) { errorText = text; }

const char* hemlockError::GetDetailedText() {
  // Built once: details added after the first reading that found some do
  // not appear.
  if (detailedText.empty() && !details.empty()) {
    for (size_t i = 0; i < details.size(); ++i) {
      if (i != 0) detailedText += '\n';
      detailedText += details[i];
    }
  }
  return detailedText.c_str();
}

void hemlockError::AddDetailedInfo(const char* text) {
  if (text != nullptr) details.emplace_back(text);
}
void hemlockError::AddDetailedInfo(const std::string& text) { details.push_back(text); }

void hemlockError::PushText(const char* text) {
  if (text != nullptr) PushText(std::string(text));
}
void hemlockError::PushText(const std::string& text) {
  details.push_back(errorText);
  errorText = text;
}

void hemlockError::Delete() {}

void hemlockError::Copy(const hemlockError& other) {
  title.clear();
  errorText.clear();
  details.clear();
  if (&other != this) {
    if (!other.title.empty()) title = other.title;
    if (!other.errorText.empty()) errorText = other.errorText;
  }
  severity = other.severity;
  // Copying from itself after the clear appends nothing, as the source's
  // details are gone by then.
  details.insert(details.end(), other.details.begin(), other.details.end());
}

}  // namespace Qx::Nlv::Hemlock
