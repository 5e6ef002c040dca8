#include "apps/tolvane/Selection.h"

#include "platform/foundation/Locale.h"

#include <algorithm>
#include <charconv>
#include <functional>
#include <optional>
#include <set>
#include <tuple>

namespace tolvane {
namespace {

using Kind = Selector::Kind;
using Positions = std::vector<std::size_t>;

std::optional<Selector> parseCommon(const std::string& text) {
  Selector selector;
  selector.text = text;
  if (text == "best")
    selector.kind = Kind::Best;
  else if (text == "all")
    selector.kind = Kind::All;
  else if (text == "none")
    selector.kind = Kind::None;
  else if (text.rfind("id:", 0) == 0 && text.size() > 3) {
    selector.kind = Kind::Identifier;
    selector.names = {text.substr(3)};
  } else
    return std::nullopt;
  return selector;
}

/// Orders by picture height, then bitrate.
bool worse(const Choice& a, const Choice& b) {
  return std::tie(a.height, a.bitrate) < std::tie(b.height, b.bitrate);
}

Positions best(const std::vector<Choice>& choices, const std::function<bool(const Choice&)>& admits = {}) {
  Positions found;
  for (std::size_t i = 0; i < choices.size(); ++i)
    if ((!admits || admits(choices[i])) && (found.empty() || worse(choices[found[0]], choices[i])))
      found = {i};
  return found;
}

Positions worst(const std::vector<Choice>& choices) {
  Positions found;
  for (std::size_t i = 0; i < choices.size(); ++i)
    if (found.empty() || worse(choices[i], choices[found[0]]))
      found = {i};
  return found;
}

Positions all(const std::vector<Choice>& choices) {
  Positions found(choices.size());
  for (std::size_t i = 0; i < found.size(); ++i)
    found[i] = i;
  return found;
}

std::string describe(const std::vector<Choice>& choices) {
  std::string text;
  for (const Choice& choice : choices) {
    if (text.size() > 200)
      return text + ", …";
    text += (text.empty() ? "" : ", ") + ("id:" + choice.identifier);
    if (choice.height > 0)
      text += " " + std::to_string(choice.height) + "p";
    if (!choice.language.empty())
      text += " " + choice.language;
    if (choice.bitrate > 0)
      text += " " + std::to_string(choice.bitrate / 1000) + "k";
  }
  return text;
}

[[noreturn]] void nothingMatches(const char* what, const Selector& selector,
                                 const std::vector<Choice>& choices) {
  throw SelectionError(std::string("no ") + what + " matches '" + selector.text + "'; there is " +
                       (choices.empty() ? "none" : describe(choices)));
}

bool speaks(const Choice& choice, const std::string& language) {
  return !choice.language.empty() && platform::Locale::canonicalLanguage(choice.language) ==
                                         platform::Locale::canonicalLanguage(language);
}

Positions byIdentifier(const char* what, const Selector& selector, const std::vector<Choice>& choices) {
  Positions found;
  for (std::size_t i = 0; i < choices.size(); ++i)
    if (choices[i].identifier == selector.names[0])
      found.push_back(i);
  if (found.empty())
    nothingMatches(what, selector, choices);
  return found;
}

Positions chooseTrack(const char* what, const Selector& selector, const std::vector<Choice>& choices) {
  switch (selector.kind) {
  case Kind::None:
    return {};
  case Kind::All:
    return all(choices);
  case Kind::Best:
    return best(choices);
  case Kind::Identifier:
    return byIdentifier(what, selector, choices);
  case Kind::Languages: {
    std::set<std::size_t> found;
    for (const std::string& language : selector.names) {
      Positions one = best(choices, [&](const Choice& choice) { return speaks(choice, language); });
      if (one.empty()) {
        Selector missing = selector;
        missing.text = language;
        nothingMatches(what, missing, choices);
      }
      found.insert(one.begin(), one.end());
    }
    return {found.begin(), found.end()};
  }
  default:
    return {};
  }
}

} // namespace

Selector parseVideoSelector(const std::string& text) {
  if (auto common = parseCommon(text))
    return *common;
  Selector selector;
  selector.text = text;
  if (text == "worst") {
    selector.kind = Kind::Worst;
    return selector;
  }
  auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), selector.number);
  std::string unit(end, text.data() + text.size());
  if (failure == std::errc() && selector.number > 0 && selector.number < 1'000'000'000) {
    if (unit == "p")
      selector.kind = Kind::Height;
    else if (unit == "k" || unit == "K")
      selector.kind = Kind::Bitrate, selector.number *= 1000;
    else if (unit == "m" || unit == "M")
      selector.kind = Kind::Bitrate, selector.number *= 1'000'000;
  }
  if (selector.kind == Kind::Default)
    throw SelectionError("'" + text + "' selects no video; use best, worst, all, none, 720p, 1500k or id:X");
  return selector;
}

Selector parseTrackSelector(const std::string& text) {
  if (auto common = parseCommon(text))
    return *common;
  Selector selector;
  selector.kind = Kind::Languages;
  selector.text = text;
  for (std::size_t start = 0; start <= text.size();) {
    std::size_t end = std::min(text.find(',', start), text.size());
    std::string name = text.substr(start, end - start);
    bool plausible =
        name.size() >= 2 && name.size() <= 35 && std::all_of(name.begin(), name.end(), [](char c) {
          return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                 c == '_';
        });
    if (!plausible)
      throw SelectionError("'" + text +
                           "' selects no track; use best, all, none, languages such as en,de, or id:X");
    selector.names.push_back(name);
    start = end + 1;
  }
  return selector;
}

Positions chooseVideo(const Selector& selector, const std::vector<Choice>& choices) {
  switch (selector.kind) {
  case Kind::None:
    return {};
  case Kind::All:
    return all(choices);
  case Kind::Worst:
    return worst(choices);
  case Kind::Identifier:
    return byIdentifier("video", selector, choices);
  case Kind::Height: {
    Positions found = best(choices, [&](const Choice& c) { return c.height <= selector.number; });
    return found.empty() ? worst(choices) : found;
  }
  case Kind::Bitrate: {
    // Here the bitrate alone decides: the picture may be smaller than what another quality offers for more
    // bits.
    std::optional<std::size_t> below, lowest;
    for (std::size_t i = 0; i < choices.size(); ++i) {
      if (choices[i].bitrate <= selector.number && (!below || choices[*below].bitrate < choices[i].bitrate))
        below = i;
      if (!lowest || choices[i].bitrate < choices[*lowest].bitrate)
        lowest = i;
    }
    return below ? Positions{*below} : lowest ? Positions{*lowest} : Positions{};
  }
  default:
    return best(choices);
  }
}

Positions chooseAudio(const Selector& selector, const std::vector<Choice>& choices,
                      const std::string& userLanguage) {
  if (selector.kind != Kind::Default)
    return chooseTrack("audio", selector, choices);
  Positions own = best(choices, [&](const Choice& choice) { return speaks(choice, userLanguage); });
  if (!own.empty() || choices.empty())
    return own;
  return best(choices, [&](const Choice& choice) { return choice.track == choices[0].track; });
}

Positions chooseText(const Selector& selector, const std::vector<Choice>& choices) {
  return chooseTrack("text", selector, choices);
}

} // namespace tolvane
