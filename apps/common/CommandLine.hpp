#pragma once

// The command line of our programs, one parser for all of them: flags, options that take the next
// word as their value, and operands (the words that are no option), taken in the order given.
// "--help" and "-h" show the program's usage. Header-only and of the standard library alone, so
// that every executable may take it without linking anything of another room.

#include <charconv>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kelvaron::apps {

// A command line the program cannot take, in words for the person who typed it.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// All of `text` as a number from `least` to `most`; nothing for anything else ("8x", " 8", "nan").
template <class Number>
std::optional<Number> parseNumber(std::string_view text, Number least, Number most) {
  Number value{};
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end || !(value >= least && value <= most)) {
    return std::nullopt;
  }
  return value;
}

class CommandLine {
 public:
  // Takes an option's value or an operand; throws UsageError for one it cannot take.
  using Take = std::function<void(const std::string&)>;

  // `usage`: the text "--help" shows.
  CommandLine(std::string program, std::string usage)
      : program_(std::move(program)), usage_(std::move(usage)) {}

  CommandLine& flag(const std::string& name, std::function<void()> set) {
    options_[name] = {false, [set = std::move(set)](const std::string&) { set(); }};
    return *this;
  }
  CommandLine& option(const std::string& name, Take take) {
    options_[name] = {true, std::move(take)};
    return *this;
  }
  // Without operands, a word that is no option is a mistake.
  CommandLine& operands(Take take) {
    operands_ = std::move(take);
    return *this;
  }

  // Applies `argv`. Nothing when the program goes on; else the status it exits with: 0 once the
  // usage is shown, 2 once the mistake is told.
  std::optional<int> parse(int argc, const char* const* argv) const {
    try {
      for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--help" || word == "-h") {
          std::cout << usage_ << std::flush;
          return 0;
        }
        const auto option = options_.find(word);
        if (option != options_.end()) {
          const auto& [takesValue, take] = option->second;
          if (takesValue && i + 1 >= argc) throw UsageError(word + " needs a value");
          take(takesValue ? argv[++i] : "");
        } else if (word.size() > 1 && word.front() == '-') {
          throw UsageError("unknown option " + word + " (see --help)");
        } else if (operands_) {
          operands_(word);
        } else {
          throw UsageError("unexpected " + word + " (see --help)");
        }
      }
    } catch (const UsageError& mistake) {
      return fail(mistake.what());
    }
    return std::nullopt;
  }

  // Tells the person why the program stops here; the status it exits with.
  int fail(const std::string& text) const {
    std::cerr << program_ << ": " << text << std::endl;
    return 2;
  }

 private:
  struct Option {
    bool takesValue = false;
    Take take;
  };

  std::string program_;
  std::string usage_;
  std::map<std::string, Option, std::less<>> options_;
  Take operands_;
};

}  // namespace kelvaron::apps
