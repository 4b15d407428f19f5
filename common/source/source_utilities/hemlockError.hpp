// The tool error family, shared by the debug tool libraries across library
// borders. Not derived from std::exception: tool errors are caught at the call
// into a tool library and turned into that layer's own result; they never
// reach the command translator.
//
// hemlockError is exported from the module so that libraries loaded into the
// same process can build and throw the same class. Not thread-safe: one error
// object belongs to one thread at a time.
#pragma once

#include <string>
#include <vector>

#include "hemlock/hemlockErrorIF.hpp"
#include "source_utilities/OstrandExport.hpp"

namespace Qx::Nlv::Hemlock {

class OSTRAND_EXPORT hemlockError : public hemlockErrorIF {
 public:
  static const char* const DefaultTitle[5];
  static const char* const UnitializedText;

  hemlockError();
  hemlockError(const hemlockError& other);
  explicit hemlockError(Severity_Type severity);
  hemlockError(const std::string& text, Severity_Type severity);
  hemlockError(const char* text, Severity_Type severity);
  hemlockError(const std::string& title, const std::string& text, Severity_Type severity);
  hemlockError(const char* title, const char* text, Severity_Type severity);

  hemlockError& operator=(const hemlockError& other);

  const char* GetTitle() override;
  void SetTitle(const char* title) override;
  void SetTitle(const std::string& title);
  Severity_Type GetSeverity() const override;
  void SetSeverity(Severity_Type severity) override;
  const char* GetErrorText() const override;
  void SetErrorText(const char* text) override;
  void SetErrorText(const std::string& text);
  const char* GetDetailedText() override;
  void AddDetailedInfo(const char* text) override;
  void AddDetailedInfo(const std::string& text);
  void PushText(const char* text) override;
  void PushText(const std::string& text);
  void Delete() override;

  virtual ~hemlockError();
  virtual void Copy(const hemlockError& other);

 private:
  std::string title;
  std::string errorText;
  std::string detailedText;
  std::vector<std::string> details;
  Severity_Type severity = Error;
};

}  // namespace Qx::Nlv::Hemlock
