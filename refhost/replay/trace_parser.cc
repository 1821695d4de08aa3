#include "refhost/replay/trace_parser.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <optional>

namespace zefs::refhost {

namespace {

using Operation = TraceRequest::Operation;

/// `field` as it can stand in a message: short, and without control characters.
std::string Quoted(std::string_view field) {
  constexpr std::size_t kShown = 32;
  std::string text(field.substr(0, kShown));
  std::replace_if(
      text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c > '~'; }, '?');
  return "'" + text + (field.size() > kShown ? "...'" : "'");
}

/// The text up to the next space, which is taken off `*rest` together with that space. Nothing if
/// the line is at its end.
std::optional<std::string_view> NextField(std::optional<std::string_view>* rest) {
  if (!rest->has_value()) {
    return std::nullopt;
  }
  const std::string_view text = **rest;
  const std::size_t space = text.find(' ');
  if (space == std::string_view::npos) {
    rest->reset();
    return text;
  }
  *rest = text.substr(space + 1);
  return text.substr(0, space);
}

/// Reads a decimal number into `*number`. Returns what is wrong with it, or nothing.
template <typename Number>
std::optional<TraceLineError> ReadNumber(const std::string& name,
                                         std::optional<std::string_view> field, Number* number) {
  if (!field.has_value() || field->empty()) {
    return TraceLineError{name + " is missing"};
  }
  const bool negative = field->front() == '-';
  const std::string_view digits = field->substr(negative ? 1 : 0);
  if (digits.empty() ||
      !std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; })) {
    return TraceLineError{name + " " + Quoted(*field) + " is no decimal number"};
  }
  if (negative) {
    return TraceLineError{name + " " + Quoted(*field) + " is negative"};
  }
  if (std::from_chars(digits.data(), digits.data() + digits.size(), *number).ec != std::errc()) {
    return TraceLineError{name + " " + Quoted(*field) + " is too large"};
  }
  return std::nullopt;
}

}  // namespace

std::variant<TraceRequest, TraceLineError> ParseTraceLine(std::string_view line) {
  if (line.empty()) {
    return TraceLineError{"the line is empty"};
  }
  std::optional<std::string_view> rest = line;
  const std::string_view operation = *NextField(&rest);
  if (operation != "R" && operation != "W") {
    return TraceLineError{"unknown operation " + Quoted(operation) + ", R or W is meant"};
  }
  TraceRequest request;
  request.operation = operation == "R" ? Operation::kRead : Operation::kWrite;
  long length = 0;
  if (const auto error = ReadNumber("offset", NextField(&rest), &request.start)) {
    return *error;
  }
  if (const auto error = ReadNumber("length", NextField(&rest), &length)) {
    return *error;
  }
  if (length == 0) {
    return TraceLineError{"length is 0"};
  }
  if (length > LONG_MAX - request.start) {
    return TraceLineError{"the range ends above the largest offset, " + std::to_string(LONG_MAX)};
  }
  request.end = request.start + length;
  if (rest.has_value()) {
    if (const auto error = ReadNumber("unit", NextField(&rest), &request.unit)) {
      return *error;
    }
  }
  if (rest.has_value()) {
    return TraceLineError{"unexpected " + Quoted(*rest) + " after the unit"};
  }
  return request;
}

}  // namespace zefs::refhost
