#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace zefs::refhost {

std::string FormatCount(std::uint64_t count);  ///< "1,234,567"
std::string FormatBytes(double bytes);         ///< "1.50 GiB"; below 1 KiB whole bytes, "17 B"
std::string FormatByteRate(double perSecond);  ///< "210 MiB/s"
std::string FormatRate(double perSecond);      ///< "1.25 M/s"
std::string FormatSeconds(double seconds);     ///< "0.032 s", "12.3 s", "2 min 05 s"

/// What a command found out, in the order in which it is told: each figure once, for people and for
/// machines. Text shows a label and a rounded figure, JSON a key and the exact one.
class Report {
 public:
  void Count(std::string key, std::string label, std::uint64_t count);
  void Bytes(std::string key, std::string label, std::uint64_t bytes);
  void ByteRate(std::string key, std::string label, double perSecond);
  void Rate(std::string key, std::string label, double perSecond);
  void Seconds(std::string key, std::string label, double seconds);
  void Ratio(std::string key, std::string label, double ratio);
  void Words(std::string key, std::string label, std::string words);

  /// Adds a line that only the text shows: what JSON tells by Data.
  void Shown(std::string label, std::string figure);

  /// Adds a value that only JSON shows: what the text tells elsewhere, or not at all.
  void Data(std::string key, nlohmann::ordered_json value);

  /// One line per figure: an indented label, padded, and the figure.
  std::string Text() const;

  /// One object, two blanks a level, with a newline at the end. Text that is not UTF-8 has its bad
  /// bytes replaced.
  std::string Json() const;

 private:
  struct Line {
    std::string label;
    std::string figure;
  };

  void Add(std::string key, std::string label, std::string figure, nlohmann::ordered_json value);

  std::vector<Line> lines_;
  nlohmann::ordered_json object_ = nlohmann::ordered_json::object();
};

}  // namespace zefs::refhost
