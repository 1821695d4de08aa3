#include "refhost/replay/final_state.h"

#include "table/fingerprint.h"

namespace zefs::refhost {

void FinalState::Add(unsigned long unit, const Piece& piece) {
  if (open_ && unit_ == unit && run_.end == piece.start && run_.line == piece.line) {
    run_.end = piece.end;
    return;
  }
  EndRun();
  unit_ = unit;
  run_ = piece;
  open_ = true;
}

void FinalState::EndRun() {
  if (!open_) {
    return;
  }
  const std::string text = std::to_string(unit_) + ' ' + std::to_string(run_.start) + ' ' +
                           std::to_string(run_.end) + ' ' + std::to_string(run_.line) + '\n';
  hasher_.Update(text.data(), text.size());
  ++runs_;
  bytes_ += static_cast<std::uint64_t>(run_.end - run_.start);
  open_ = false;
}

void FinalState::Finish() {
  EndRun();
  digest_ = Aldenta::Qnd::Morene::Zefs::TextOf(hasher_.Finish()).data();
}

}  // namespace zefs::refhost
