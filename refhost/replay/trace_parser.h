#pragma once

#include <string>
#include <string_view>
#include <variant>

namespace zefs::refhost {

/// One request of a trace: the bytes [start, end) of one unit are read or written.
struct TraceRequest {
  enum class Operation { kRead, kWrite };

  Operation operation = Operation::kRead;
  long start = 0;
  long end = 0;            ///< above start
  unsigned long unit = 0;  ///< the file, disk or object; 0 where the line names none
};

/// Why a line is no request, in words that can follow "file:line: ".
struct TraceLineError {
  std::string reason;
};

/// The request of one line, given without its line end: `R` or `W`, offset and length in bytes and
/// perhaps a unit, all decimal, separated by one space each.
std::variant<TraceRequest, TraceLineError> ParseTraceLine(std::string_view line);

}  // namespace zefs::refhost
