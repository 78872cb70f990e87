#include "control/Completion.h"

#include <algorithm>

#include "control/Answers.h"
#include "control/CommandTable.h"
#include "control/LimitsKeys.h"
#include "control/Presets.h"
#include "control/SettingsKeys.h"
#include "limits/LimitsKeys.h"

namespace vardell::control {
namespace {

// What stands before the last word.
struct Before {
  QStringList words;                        // that are no options
  const OptionShape* unfinished = nullptr;  // an option whose value the last word is
  bool optionsOver = false;
};

Before Walk(const QStringList& words) {
  Before before;
  for (const QString& word : words) {
    if (before.unfinished) {
      before.unfinished = nullptr;
    } else if (before.optionsOver || !word.startsWith(QLatin1String("--"))) {
      before.words.append(word);
    } else if (word.size() == 2) {
      before.optionsOver = true;
    } else if (const OptionShape* option = FindOption(word)) {
      before.unfinished = option->value.isEmpty() ? nullptr : option;
    }
  }
  return before;
}

QStringList OptionValues(const OptionShape& option) {
  if (option.value == QLatin1String("PATH")) return {QLatin1String(kFilesMarker)};
  const QStringList choices = option.value.split(QLatin1Char('|'));
  return choices.size() > 1 ? choices : QStringList();
}

// "--period=" with each of its values, once there is an equals sign.
QStringList OptionWords(const CommandShape* shape, const QString& last) {
  const qsizetype equals = last.indexOf(QLatin1Char('='));
  QStringList words;
  for (const auto& options : {CommonOptions(), shape ? shape->options : CommonOptions()}) {
    for (const OptionShape& option : options) {
      if (equals < 0) {
        words.append(option.name);
      } else if (option.name == last.left(equals)) {
        for (const QString& value : OptionValues(option)) {
          const bool isFile = value == QLatin1String(kFilesMarker);
          words.append(isFile ? value : option.name + QLatin1Char('=') + value);
        }
      }
    }
  }
  words.removeDuplicates();
  return words;
}

QStringList NextCommandWords(const QStringList& before) {
  QStringList words;
  for (const CommandShape& shape : CommandShapes()) {
    const bool fits = shape.verb != Verb::Complete && shape.words.size() > before.size() &&
                      shape.words.mid(0, before.size()) == before;
    if (fits) words.append(shape.words[before.size()]);
  }
  words.removeDuplicates();
  return words;
}

QStringList ValuesOf(const LimitsKey& key) {
  switch (key.value) {
    case LimitsValue::Flag:
      return {QStringLiteral("true"), QStringLiteral("false")};
    case LimitsValue::Unit:
      return {QStringLiteral("60"), QStringLiteral("1")};
    case LimitsValue::UnitOrNone:
      return {QStringLiteral("60"), QStringLiteral("1"), QStringLiteral("0")};
    default:
      return {};
  }
}

QStringList ValuesOf(const SettingKey& key, const CompletionSources& sources) {
  switch (key.form) {
    case SettingForm::Switch:
      return {QStringLiteral("on"), QStringLiteral("off")};
    case SettingForm::Configuration:
      return {QStringLiteral("carry-on"), QStringLiteral("lock"), QStringLiteral("retry")};
    case SettingForm::Account:
      return sources.accounts();
    case SettingForm::Server:
      return {};
  }
  return {};
}

QStringList KeyNames(const CommandShape& shape, const QStringList& before) {
  QStringList names;
  if (shape.words[0] == QLatin1String("settings")) {
    for (const SettingKey& key : AllSettingKeys()) names.append(QLatin1String(key.name));
    return names;
  }
  const bool isHome = before.value(shape.words.size() + 1) == QLatin1String("home");
  for (const LimitsKey& key : AllLimitsKeys()) {
    const bool fits = !isHome || key.ofQuota;
    const bool canBeUnset = key.value != LimitsValue::Credit;
    if (fits && (canBeUnset || shape.verb != Verb::LimitsUnset)) {
      names.append(QLatin1String(key.name));
    }
  }
  QStringList options = LimitsOptions();
  if (shape.verb != Verb::LimitsUnset) options.removeOne(QStringLiteral("Schedule"));
  return isHome ? names : names + options;
}

QStringList ValuesOfKey(const CommandShape& shape, const QString& name,
                        const CompletionSources& sources) {
  if (shape.words[0] == QLatin1String("settings")) {
    const SettingKey* key = FindSettingKey(name);
    return key ? ValuesOf(*key, sources) : QStringList();
  }
  const LimitsKey* key = FindLimitsKey(name);
  return key ? ValuesOf(*key) : WordsOfOption(name);
}

QStringList PairWords(const CommandShape& shape, const QStringList& before, const QString& last,
                      const CompletionSources& sources) {
  const qsizetype equals = last.indexOf(QLatin1Char('='));
  QStringList words;
  if (equals >= 0) {
    for (const QString& value : ValuesOfKey(shape, last.left(equals), sources)) {
      words.append(last.left(equals + 1) + value);
    }
    return words;
  }
  for (const QString& name : KeyNames(shape, before)) {
    const QString pair = name + QLatin1Char('=');
    const bool isGiven =
        std::ranges::any_of(before, [&](const QString& word) { return word.startsWith(pair); });
    if (!isGiven) words.append(pair);
  }
  return words;
}

QStringList Harmless(const QStringList& names) {
  QStringList harmless;
  std::ranges::copy_if(names, std::back_inserter(harmless), IsHarmlessName);
  return harmless;
}

QStringList IdentifierWords(const QString& user, const CompletionSources& sources) {
  QStringList words{QStringLiteral("computer"), QStringLiteral("home")};
  for (const QString& identifier : sources.identifiers(user)) {
    words.append(ShownIdentifier(identifier));
  }
  words.removeDuplicates();
  return Harmless(words);
}

QStringList PresetNames() {
  QStringList names;
  for (const Preset& preset : Presets()) names.append(preset.name);
  return names;
}

QStringList ArgumentWords(const CommandShape& shape, const QStringList& before, const QString& last,
                          const CompletionSources& sources) {
  if (shape.arguments.empty()) return {};
  const auto index = static_cast<std::size_t>(before.size() - shape.words.size());
  const bool repeats = shape.arguments.back().isRepeated;
  if (index >= shape.arguments.size() && !repeats) return {};
  const QString name = shape.arguments[std::min(index, shape.arguments.size() - 1)].name;
  if (name == QLatin1String("USER")) return Harmless(sources.users());
  if (name == QLatin1String("IDENTIFIER")) return IdentifierWords(before.last(), sources);
  if (name == QLatin1String("PRESET")) return PresetNames();
  if (name == QLatin1String("KEY=VALUE")) return PairWords(shape, before, last, sources);
  if (name == QLatin1String("PATH") || name == QLatin1String("FILE") ||
      name == QLatin1String("HOURS")) {
    return {QLatin1String(kFilesMarker)};
  }
  if (name != QLatin1String("KEY")) return {};
  QStringList keys = KeyNames(shape, before);
  keys.removeIf([&](const QString& key) { return before.contains(key); });
  return keys;
}

}  // namespace

bool IsHarmlessName(const QString& name) {
  const QString signs = QStringLiteral("._-+@:,/ ");
  const QList<uint> characters = name.toUcs4();
  const auto isLetter = [](uint c) {
    return c == '_' || QChar::isLetterOrNumber(c) || QChar::isMark(c);
  };
  return !characters.isEmpty() && isLetter(characters[0]) &&
         std::ranges::all_of(characters, [&](uint c) {
           return isLetter(c) || (c < 128 && signs.contains(QChar(c)));
         });
}

QStringList Complete(const QStringList& words, const CompletionSources& sources) {
  if (words.isEmpty()) return {};
  const QString last = words.last();
  const Before before = Walk(words.mid(0, words.size() - 1));
  qsizetype used = 0;
  const CommandShape* shape = FindCommand(before.words, &used);
  QStringList candidates;
  if (before.unfinished) {
    candidates = OptionValues(*before.unfinished);
  } else if (!before.optionsOver && last.startsWith(QLatin1Char('-'))) {
    candidates = OptionWords(shape, last);
  } else if (shape == nullptr) {
    candidates = NextCommandWords(before.words);
  } else {
    candidates = ArgumentWords(*shape, before.words, last, sources);
  }
  candidates.removeIf([&](const QString& candidate) {
    return candidate != QLatin1String(kFilesMarker) && !candidate.startsWith(last);
  });
  return candidates;
}

}  // namespace vardell::control
