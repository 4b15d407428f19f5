// SimError: the tool error the simulated debug environment throws across
// its interfaces. Thrown by value and caught as hemlockErrorIF& by callers;
// a heap-made one may be handed over and ends with Delete().
#pragma once

#include <string>

#include "hemlock/hemlockErrorIF.hpp"

namespace OstrandSim {

class SimError final : public Qx::Nlv::Hemlock::hemlockErrorIF {
 public:
  explicit SimError(std::string text, Severity_Type severity = Error)
      : text_(std::move(text)), severity_(severity) {}
  SimError(const SimError&) = default;
  virtual ~SimError() = default;

  const char* GetTitle() override { return title_.c_str(); }
  void SetTitle(const char* title) override { title_ = title != nullptr ? title : ""; }
  Severity_Type GetSeverity() const override { return severity_; }
  void SetSeverity(Severity_Type severity) override { severity_ = severity; }
  const char* GetErrorText() const override { return text_.c_str(); }
  void SetErrorText(const char* text) override { text_ = text != nullptr ? text : ""; }
  const char* GetDetailedText() override { return detail_.c_str(); }
  void AddDetailedInfo(const char* text) override {
    if (!detail_.empty()) detail_ += "\n";
    detail_ += text != nullptr ? text : "";
  }
  void PushText(const char* text) override {
    if (!text_.empty()) detail_ = text_ + (detail_.empty() ? "" : "\n" + detail_);
    text_ = text != nullptr ? text : "";
  }
  void Delete() override { delete this; }

 private:
  std::string title_;
  std::string text_;
  std::string detail_;
  Severity_Type severity_;
};

}  // namespace OstrandSim
