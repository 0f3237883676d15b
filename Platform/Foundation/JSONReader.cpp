#include "Platform/Foundation/JSONReader.h"

#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Base/Counted.h"

namespace skelda::platform {
namespace {

/// The code of property-list and JSON texts that cannot be read.
constexpr std::int64_t kReadCorrupt = 3840;

ErrorRef readError(std::string text) {
  return makeCounted<const Error>(cocoaErrorDomain(), kReadCorrupt,
                                  Value{{"NSLocalizedDescription", std::move(text)}});
}

/// A container that is still open, and in an object the key that waits for its value.
struct Open {
  bool isObject = false;
  std::string key;
  Array elements;
  std::vector<Dictionary::Entry> entries;
};

/// Takes the tokens of one text and builds the value.
class Builder final : public nlohmann::json_sax<nlohmann::json> {
 public:
  explicit Builder(const JSONLimits& limits) : limits_(limits) {}

  Value takeRoot() { return std::move(root_); }
  std::string takeProblem() { return std::move(problem_); }

  bool null() override { return add(Value()); }
  bool boolean(bool value) override { return add(Value(value)); }
  bool number_integer(number_integer_t value) override { return add(Value(value)); }
  bool number_unsigned(number_unsigned_t value) override {
    constexpr auto kMaximum = std::uint64_t{std::numeric_limits<std::int64_t>::max()};
    return add(value <= kMaximum ? Value(static_cast<std::int64_t>(value)) : Value(value));
  }
  bool number_float(number_float_t value, const string_t&) override { return add(Value(value)); }
  bool string(string_t& value) override { return add(Value(std::move(value))); }
  bool binary(binary_t&) override { return refuse("binary data"); }

  bool start_object(std::size_t) override { return open(true); }
  bool start_array(std::size_t) override { return open(false); }
  bool key(string_t& name) override {
    open_.back().key = std::move(name);
    return true;
  }
  bool end_object() override { return close(); }
  bool end_array() override { return close(); }

  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::json::exception&) override {
    // Not the library's own words: they quote the input.
    return refuse("invalid text near byte " + std::to_string(position));
  }

 private:
  bool refuse(std::string problem) {
    problem_ = std::move(problem);
    return false;
  }

  bool open(bool isObject) {
    if (open_.size() >= limits_.maximumDepth) return refuse("nested too deeply");
    if (!count()) return false;
    open_.emplace_back().isObject = isObject;
    return true;
  }

  bool close() {
    Open done = std::move(open_.back());
    open_.pop_back();
    place(done.isObject ? Value(Dictionary::withEntries(std::move(done.entries)))
                        : Value(std::move(done.elements)));
    return true;
  }

  bool add(Value value) {
    if (!count()) return false;
    place(std::move(value));
    return true;
  }

  bool count() { return ++values_ <= limits_.maximumValues || refuse("too many values"); }

  void place(Value value) {
    if (open_.empty()) {
      root_ = std::move(value);
    } else if (open_.back().isObject) {
      open_.back().entries.emplace_back(std::move(open_.back().key), std::move(value));
    } else {
      open_.back().elements.push_back(std::move(value));
    }
  }

  JSONLimits limits_;
  std::vector<Open> open_;
  std::size_t values_ = 0;
  Value root_;
  std::string problem_;
};

}  // namespace

std::optional<Value> readJSON(std::string_view text, ErrorRef* error, const JSONLimits& limits) {
  if (text.size() > limits.maximumBytes) {
    setError(error, readError("The JSON text is too long."));
    return std::nullopt;
  }
  // The library takes a zero byte for the end of the text.
  if (text.find('\0') != std::string_view::npos) {
    setError(error, readError("The JSON text holds a zero byte."));
    return std::nullopt;
  }
  Builder builder(limits);
  if (nlohmann::json::sax_parse(text.begin(), text.end(), &builder)) return builder.takeRoot();
  setError(error, readError("The JSON text cannot be read: " + builder.takeProblem() + "."));
  return std::nullopt;
}

}  // namespace skelda::platform
