// The command line of a subcommand, read one argument at a time: options
// ("--name", some followed by a value), --help or -h, and positional words.
//
// The usage errors every subcommand shares are worded here once:
//   <command>: <option> needs a value; see '<command> --help'
//   <command>: unknown option '<arg>'; see '<command> --help'
// `fail` prints them (or a message of the command's own) on stderr and
// gives the usage exit code; `error()` gives the text alone to a command
// that words its own report.
#pragma once

#include <initializer_list>
#include <string>

namespace ostrand {

class ArgReader {
 public:
  // `command` as the messages name it, e.g. "ostrand gen"; argv[0] is the
  // subcommand's own name and is skipped.
  ArgReader(std::string command, int argc, char** argv);

  // Steps to the next argument; false after the last.
  bool next();
  const std::string& arg() const { return arg_; }
  bool is(const char* name) const { return arg_ == name; }
  bool isAny(std::initializer_list<const char*> names) const {
    for (const char* name : names)
      if (arg_ == name) return true;
    return false;
  }
  bool isHelp() const { return arg_ == "--help" || arg_ == "-h"; }
  bool isOption() const { return arg_.size() > 2 && arg_.compare(0, 2, "--") == 0; }

  // Takes the argument after the current option as its value; false (and
  // the error set) when there is none.
  bool value(std::string& out);
  // Takes the next argument as a value only when it is there and no option.
  bool optionalValue(std::string& out);

  // The error of the last failed read, or "unknown option '<arg>'".
  std::string error() const;
  // Prints "<command>: <error>; see '<command> --help'"; gives kExitUsage.
  int fail() const;
  // Prints "<command>: <message>"; gives kExitUsage.
  int fail(const std::string& message) const;

 private:
  std::string command_;
  int argc_;
  char** argv_;
  int index_ = 0;
  std::string arg_;
  std::string error_;
};

// The user directory: `given` when not empty, else $USERPROFILE, else
// $HOME. Empty, with the usage message printed for `command`, when none is
// known; `option` names the option that would give it ("--data DIR").
std::string userDirectoryOr(const std::string& given, const char* command, const char* option);

}  // namespace ostrand
