#pragma once

#include <string>
#include <string_view>

namespace zefs::refhost {

/// `text` as it may go to a terminal: paths hold any byte, and a control character among them would
/// be obeyed there or break a line in two. Each is shown as `\xHH`, all else is left as it is.
std::string Printable(std::string_view text);

}  // namespace zefs::refhost
