#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <random>
#include <vector>

#include "refhost/cache/cache_node.h"
#include "tests/support/oid.h"
#include "tests/system/model/pieces.h"

namespace zefs::test {

/// A part of a file that one thread writes, with all writes that it will make. A byte tells which
/// of them wrote it by its place in the object.
class Stripe {
 public:
  static constexpr long kUnit = 16;
  static constexpr std::size_t kUnits = 64;
  static constexpr long kBytes = kUnit * static_cast<long>(kUnits);

  struct Write {
    std::size_t from = 0;  ///< units
    std::size_t to = 0;
    std::unique_ptr<refhost::CacheNode> node;  ///< null: the object is known at once
  };

  Stripe(std::size_t number, std::size_t writes, std::uint64_t seed) : number_(number) {
    std::mt19937_64 random(seed + number);
    const auto below = [&random](std::size_t end) { return random() % end; };
    for (std::size_t i = 0; i < writes; ++i) {
      Write write;
      write.from = below(kUnits);
      write.to =
          write.from + 1 +
          below(i % 8 == 0 ? kUnits - write.from : std::min<std::size_t>(kUnits - write.from, 6));
      if (below(4) != 0) {
        write.node = std::make_unique<refhost::CacheNode>(nullptr);
      }
      writes_.push_back(std::move(write));
    }
  }

  long begin() const { return static_cast<long>(number_) * kBytes; }
  long end() const { return begin() + kBytes; }
  std::size_t size() const { return writes_.size(); }
  const Write& write(std::size_t number) const { return writes_.at(number); }

  Piece PieceOf(std::size_t number) const {
    Piece piece;
    piece.start = begin() + static_cast<long>(writes_.at(number).from) * kUnit;
    piece.objOff = static_cast<long>(number) * kBytes + (piece.start - begin());
    piece.id = Oid(64 + (number_ * 97 + number) % 50,
                   1 + static_cast<unsigned int>(number * 16 + number_));
    return piece;
  }
  long EndOf(std::size_t number) const {
    return begin() + static_cast<long>(writes_.at(number).to) * kUnit;
  }
  void MakeReady(std::size_t number) const {
    if (const auto& node = writes_.at(number).node) {
      node->SetStored(PieceOf(number).id, -1);
    }
  }

  std::atomic<std::size_t> begun{0};  ///< writes of the stored table
  std::atomic<std::size_t> done{0};   ///< those that have returned
  std::size_t inMemory = 0;           ///< writes of the table in memory, under the host's lock

 private:
  std::size_t number_;
  std::vector<Write> writes_;
};

/// A stripe after some of its writes: of each unit, which was the last.
class StripeState {
 public:
  explicit StripeState(const Stripe* stripe) : stripe_(stripe) { owners_.fill(kNobody); }

  /// Goes on to the state after `writes` writes; not back.
  void AdvanceTo(std::size_t writes) {
    for (; applied_ < writes; ++applied_) {
      const Stripe::Write& write = stripe_->write(applied_);
      std::fill(owners_.begin() + static_cast<std::ptrdiff_t>(write.from),
                owners_.begin() + static_cast<std::ptrdiff_t>(write.to),
                static_cast<long>(applied_));
    }
  }
  std::size_t applied() const { return applied_; }

  /// The first extent that ends behind `offset`, if it lies in this stripe.
  std::optional<Seen> LookUp(long offset) const {
    auto unit = static_cast<std::size_t>((offset - stripe_->begin()) / Stripe::kUnit);
    while (unit < Stripe::kUnits && owners_.at(unit) == kNobody) {
      ++unit;
    }
    if (unit == Stripe::kUnits) {
      return std::nullopt;
    }
    const long owner = owners_.at(unit);
    std::size_t from = unit;
    while (from > 0 && owners_.at(from - 1) == owner) {
      --from;
    }
    while (unit < Stripe::kUnits && owners_.at(unit) == owner) {
      ++unit;
    }
    Seen seen;
    const auto number = static_cast<std::size_t>(owner);
    seen.end = stripe_->begin() + static_cast<long>(unit) * Stripe::kUnit;
    seen.piece =
        From(stripe_->PieceOf(number), stripe_->begin() + static_cast<long>(from) * Stripe::kUnit);
    seen.layer = number;
    return seen;
  }

 private:
  static constexpr long kNobody = -1;

  const Stripe* stripe_;
  std::array<long, Stripe::kUnits> owners_{};
  std::size_t applied_ = 0;
};

}  // namespace zefs::test
