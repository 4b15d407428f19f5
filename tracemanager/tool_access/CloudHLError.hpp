// CloudHLError: the module's own tool error object, handed into the tool's
// interfaces and thrown by the tool client.
//
// Unlike hemlockError, PushText keeps the previous text in the details and
// Delete() destroys the object, so one handed over must be made with new.
// A thrown copy is never deleted by its catcher. Not thread-safe.
#pragma once

#include <string>

#include "hemlock/hemlockErrorIF.hpp"

class CloudHLError : public Qx::Nlv::Hemlock::hemlockErrorIF {
 public:
  CloudHLError() = default;
  CloudHLError(const std::string& text, Severity_Type severity)
      : errorText(text), severity(severity) {}
  CloudHLError(const CloudHLError&) = default;
  CloudHLError& operator=(const CloudHLError&) = default;

  const char* GetTitle() override { return title.c_str(); }
  void SetTitle(const char* text) override { title = text != nullptr ? text : ""; }
  Severity_Type GetSeverity() const override { return severity; }
  void SetSeverity(Severity_Type value) override { severity = value; }
  const char* GetErrorText() const override { return errorText.c_str(); }
  void SetErrorText(const char* text) override { errorText = text != nullptr ? text : ""; }
  const char* GetDetailedText() override { return detailedText.c_str(); }
  void AddDetailedInfo(const char* text) override;
  void PushText(const char* text) override;
  void Delete() override;
  virtual ~CloudHLError() = default;

 private:
  std::string title;
  std::string errorText;
  std::string detailedText;
  // Error unless a constructor or SetSeverity says otherwise.
  Severity_Type severity = Error;
};
