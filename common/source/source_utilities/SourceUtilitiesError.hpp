// Error types of the standard family used by the support library.
//
// source_utilities_error: failures of the utility layer (environment,
// directories). uString::error (in uString.hpp) derives from it.
// CloudHemlockException and EventHandlerException carry failures of the tool
// access and of the event handler; they add nothing to std::exception but
// their type and text.
#pragma once

#include <stdexcept>
#include <string>

namespace QX_NLV {

class source_utilities_error : public std::runtime_error {
 public:
  explicit source_utilities_error(const std::string& text) : std::runtime_error(text) {}
};

}  // namespace QX_NLV

class CloudHemlockException : public std::exception {
 public:
  explicit CloudHemlockException(std::string text) : text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

class EventHandlerException : public std::exception {
 public:
  explicit EventHandlerException(std::string text) : text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};
