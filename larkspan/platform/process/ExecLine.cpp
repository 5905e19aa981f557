#include "larkspan/platform/process/ExecLine.h"

namespace larkspan::platform {
namespace {

constexpr std::string_view kReserved = "\"'\\><~|&;$*?#()`";
constexpr std::string_view kEscapedInQuotes = "\"`$\\";

}  // namespace

std::variant<std::vector<std::string>, std::string> parseExecLine(std::string_view line,
                                                                  std::string_view folder) {
  std::vector<std::string> arguments;
  for (std::size_t i = 0; i < line.size();) {
    if (line[i] == ' ') {
      ++i;
      continue;
    }
    const bool isQuoted = line[i] == '"';
    if (isQuoted) ++i;
    std::string& argument = arguments.emplace_back();
    for (;; ++i) {
      if (i == line.size() || line[i] == (isQuoted ? '"' : ' ')) break;
      const char c = line[i];
      if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) return "a control character in Exec";
      if (isQuoted && c == '\\') {
        if (++i == line.size() || kEscapedInQuotes.find(line[i]) == kEscapedInQuotes.npos) {
          return "a backslash in Exec before a character that needs none";
        }
      } else if ((isQuoted ? kEscapedInQuotes : kReserved).find(c) != kReserved.npos) {
        return std::string(isQuoted ? "an unescaped " : "an unquoted ") + c + " in Exec";
      } else if (c == '%' && (++i == line.size() || line[i] != '%')) {
        return "a field code in Exec";
      }
      argument += line[i];
    }
    if (!isQuoted) continue;
    if (i == line.size()) return "an open quote in Exec";
    if (++i < line.size() && line[i] != ' ') return "an argument in Exec that is quoted in part";
  }
  if (arguments.empty() || arguments.front().empty()) return "no program in Exec";
  std::string& program = arguments.front();
  if (program.find('=') != program.npos) return "an equals sign in the program of Exec";
  if (program.front() != '/' && program.find('/') != program.npos)
    program.insert(0, std::string(folder) + '/');
  return arguments;
}

}  // namespace larkspan::platform
