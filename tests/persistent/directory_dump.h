#pragma once

#include <string>

#include <boost/filesystem/path.hpp>

namespace zefs::test {

/// The files of a table directory, without lock files and directories, as text: a line "file NAME
/// SIZE" each, in the order of the names, and below it the bytes, 32 a line, as "offset: digits" in
/// hexadecimal. Lines of zeros are left out.
std::string DumpOf(const boost::filesystem::path& directory);

/// Makes the files of a dump in `directory`, which is made too if it is missing. Lines that begin
/// with '#' are skipped. Throws std::runtime_error for a line that is none of a dump.
void Unpack(const std::string& dump, const boost::filesystem::path& directory);

}  // namespace zefs::test
