#include "refhost/cli/report.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <utility>

#include "refhost/cli/printable.h"

namespace zefs::refhost {

namespace {

/// Three significant digits, which is as far as such figures repeat.
std::string ThreeDigits(double value) {
  const int decimals = value >= 99.95 ? 0 : value >= 9.995 ? 1 : 2;
  std::array<char, 64> text{};
  std::snprintf(text.data(), text.size(), "%.*f", decimals, value);
  return text.data();
}

/// `value` divided by `step` as often as it takes to be short, with the unit that belongs to it.
template <std::size_t N>
std::string Scaled(double value, double step, const std::array<const char*, N>& units) {
  std::size_t unit = 0;
  while (value >= step - 0.5 && unit + 1 < N) {
    value /= step;
    ++unit;
  }
  return ThreeDigits(value) + units[unit];
}

/// JSON has no infinity: a rate over no time at all is told as 0.
double Finite(double value) {
  return std::isfinite(value) ? value : 0;
}

}  // namespace

std::string FormatCount(std::uint64_t count) {
  std::string text = std::to_string(count);
  for (std::size_t at = text.size(); at > 3;) {
    at -= 3;
    text.insert(at, 1, ',');
  }
  return text;
}

std::string FormatBytes(double bytes) {
  if (bytes < 1024) {
    return std::to_string(std::llround(bytes)) + " B";
  }
  return Scaled(bytes, 1024, std::array{" B", " KiB", " MiB", " GiB", " TiB", " PiB"});
}

std::string FormatByteRate(double perSecond) {
  return FormatBytes(perSecond) + "/s";
}

std::string FormatRate(double perSecond) {
  return Scaled(perSecond, 1000, std::array{" /s", " k/s", " M/s", " G/s"});
}

std::string FormatSeconds(double seconds) {
  std::array<char, 64> text{};
  if (seconds < 1) {
    std::snprintf(text.data(), text.size(), "%.3f s", seconds);
  } else if (seconds < 99.95) {
    std::snprintf(text.data(), text.size(), "%.1f s", seconds);
  } else {
    const long long whole = std::llround(seconds);
    std::snprintf(text.data(), text.size(), "%lld min %02lld s", whole / 60, whole % 60);
  }
  return text.data();
}

void Report::Count(std::string key, std::string label, std::uint64_t count) {
  Add(std::move(key), std::move(label), FormatCount(count), count);
}

void Report::Bytes(std::string key, std::string label, std::uint64_t bytes) {
  Add(std::move(key), std::move(label), FormatBytes(static_cast<double>(bytes)), bytes);
}

void Report::ByteRate(std::string key, std::string label, double perSecond) {
  Add(std::move(key), std::move(label), FormatByteRate(Finite(perSecond)), Finite(perSecond));
}

void Report::Rate(std::string key, std::string label, double perSecond) {
  Add(std::move(key), std::move(label), FormatRate(Finite(perSecond)), Finite(perSecond));
}

void Report::Seconds(std::string key, std::string label, double seconds) {
  Add(std::move(key), std::move(label), FormatSeconds(seconds), seconds);
}

void Report::Ratio(std::string key, std::string label, double ratio) {
  Add(std::move(key), std::move(label), ThreeDigits(Finite(ratio)), Finite(ratio));
}

void Report::Words(std::string key, std::string label, std::string words) {
  std::string shown = Printable(words);
  Add(std::move(key), std::move(label), std::move(shown), std::move(words));
}

void Report::Shown(std::string label, std::string figure) {
  lines_.push_back({std::move(label), std::move(figure)});
}

void Report::Data(std::string key, nlohmann::ordered_json value) {
  object_[std::move(key)] = std::move(value);
}

void Report::Add(std::string key, std::string label, std::string figure,
                 nlohmann::ordered_json value) {
  Shown(std::move(label), std::move(figure));
  Data(std::move(key), std::move(value));
}

std::string Report::Text() const {
  std::size_t width = 0;
  for (const Line& line : lines_) {
    width = std::max(width, line.label.size());
  }
  std::string text;
  for (const Line& line : lines_) {
    text +=
        "  " + line.label + std::string(width - line.label.size() + 2, ' ') + line.figure + "\n";
  }
  return text;
}

std::string Report::Json() const {
  return object_.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace zefs::refhost
