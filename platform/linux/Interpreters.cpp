#include "platform/linux/Interpreters.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace vardell {
namespace {

// Letters of options in a cluster such as "-Bc", and whole words, that take a value or a text.
struct Family {
  std::string_view name;
  std::string_view textLetters;
  std::string_view valueLetters;
  std::array<std::string_view, 6> valueWords;
};

constexpr std::array<Family, 17> kFamilies = {{
    {"python", "cm", "WX", {"--check-hash-based-pycs"}},
    {"pypy", "cm", "WX", {}},
    {"perl", "eE", "IMm", {}},
    {"ruby", "e", "CEIr", {}},
    {"lua", "e", "l", {}},
    {"luajit", "e", "lj", {}},
    {"php", "rBRE", "cdgz", {}},
    {"tclsh", "", "", {"-encoding"}},
    {"wish", "", "", {"-encoding", "-display", "-geometry", "-name", "-colormap", "-visual"}},
    {"node", "ep", "rC", {"--require", "--import", "--loader", "--conditions"}},
    {"nodejs", "ep", "rC", {"--require", "--import", "--loader", "--conditions"}},
    {"gjs", "c", "I", {"--command", "--include-path"}},
    {"gjs-console", "c", "I", {"--command", "--include-path"}},
    {"guile", "ce", "lLsx", {}},
    {"java", "", "", {"-cp", "-classpath", "--class-path", "-p", "--module-path", "--add-modules"}},
    {"mono", "", "", {"--config"}},
    {"qmlscene", "", "I", {}},
}};

constexpr std::array<std::string_view, 9> kShells = {"sh",  "bash", "dash", "zsh", "ksh",
                                                     "csh", "tcsh", "fish", "mksh"};
constexpr Family kShell = {"sh", "c", "oO", {"--rcfile", "--init-file"}};

constexpr std::array<std::string_view, 9> kOthers = {
    "env",  "busybox", "electron", "wine", "wine64", "wine-preloader", "wine64-preloader",
    "deno", "dotnet"};

constexpr std::array<std::string_view, 9> kLaunchers = {
    "flatpak", "snap", "gtk-launch", "gio", "xdg-open", "systemd-run", "pkexec", "sudo", "bwrap"};

template <std::size_t Size>
bool Contains(const std::array<std::string_view, Size>& names, std::string_view name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

std::string_view View(const QByteArray& text) {
  return {text.constData(), static_cast<std::size_t>(text.size())};
}

// "python3.11" without its version.
std::string_view WithoutVersion(std::string_view name) {
  const std::size_t end = name.find_last_not_of("0123456789.-");
  return end == std::string_view::npos ? name : name.substr(0, end + 1);
}

const Family* FamilyOf(const QByteArray& program) {
  const QByteArray base = BaseName(program);
  if (Contains(kShells, View(base))) return &kShell;
  const std::string_view name = WithoutVersion(View(base));
  for (const Family& family : kFamilies) {
    if (name == family.name) return &family;
  }
  return nullptr;
}

enum class Option { Plain, TakesNext, IsText };

Option Judge(const Family& family, std::string_view word) {
  if (Contains(family.valueWords, word)) return Option::TakesNext;
  if (word.starts_with("--")) return Option::Plain;
  for (std::size_t i = 1; i < word.size(); ++i) {
    if (family.textLetters.find(word[i]) != std::string_view::npos) return Option::IsText;
    if (family.valueLetters.find(word[i]) == std::string_view::npos) continue;
    return i + 1 == word.size() ? Option::TakesNext : Option::Plain;
  }
  return Option::Plain;
}

}  // namespace

QByteArray BaseName(const QByteArray& path) {
  return path.mid(path.lastIndexOf('/') + 1);
}

bool IsShell(const QByteArray& program) {
  return Contains(kShells, View(BaseName(program)));
}

bool IsInterpreter(const QByteArray& program) {
  return FamilyOf(program) != nullptr || Contains(kOthers, View(BaseName(program)));
}

bool IsLauncher(const QByteArray& program) {
  return Contains(kLaunchers, View(BaseName(program)));
}

QByteArray ScriptArgument(const QByteArray& interpreter, const QList<QByteArray>& words) {
  constexpr Family kUnknown = {};
  const Family* known = FamilyOf(interpreter);
  const Family& family = known ? *known : kUnknown;
  for (qsizetype i = 1; i < words.size(); ++i) {
    const QByteArray& word = words[i];
    if (word == "--") return words.value(i + 1);
    const bool isOption =
        word.size() > 1 && (word[0] == '-' || (&family == &kShell && word[0] == '+'));
    if (!isOption) return word == "-" ? QByteArray() : word;
    const Option option = Judge(family, View(word));
    if (option == Option::IsText) return {};
    if (option == Option::TakesNext) ++i;
  }
  return {};
}

}  // namespace vardell
