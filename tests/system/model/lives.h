#pragma once

#include <optional>
#include <string>

#include "tests/system/model/operation.h"
#include "tests/system/model/steps.h"

namespace zefs::test {

/// Runs `program` on two tables that `makers` make and on the model; its lives in child processes,
/// one after the other, some of which are killed. What is on disk between two lives is compared
/// with the model, or must be one of the states that a kill may leave. The first difference in
/// words, or nothing.
///
/// For a process that runs no other thread and has no LMDB environment open. `*tally` lies in
/// memory that is shared with child processes. The tables lie below the directory for temporary
/// files.
std::optional<std::string> RunProgram(const Program& program, const TableMakers& makers,
                                      Tally* tally);

}  // namespace zefs::test
