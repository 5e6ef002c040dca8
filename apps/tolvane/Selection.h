#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace tolvane {

/// What `--video`, `--audio` and `--text` accept, read once.
struct Selector {
  enum class Kind { Default, Best, Worst, All, None, Height, Bitrate, Identifier, Languages };
  Kind kind = Kind::Default;
  std::int64_t number = 0;        ///< lines for Height, bits per second for Bitrate
  std::vector<std::string> names; ///< languages as written, or the one identifier
  std::string text;               ///< as the user wrote it, for messages
};

/// A selector or a choice that cannot work; `what()` says what to do.
class SelectionError : public std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// `best`, `worst`, `all`, `none`, `720p`, `1500k` (also `2M`), `id:X`. Throws SelectionError.
Selector parseVideoSelector(const std::string& text);

/// `best`, `all`, `none`, languages such as `en,de`, `id:X`. Throws SelectionError.
Selector parseTrackSelector(const std::string& text);

/// One quality that can be chosen.
struct Choice {
  std::string identifier;
  std::string language; ///< as in the manifest, may be empty
  std::size_t track = 0;
  std::int64_t bitrate = 0;
  std::int64_t height = 0;
};

/// The positions of the video choices that `selector` means; by default the best. Throws SelectionError when
/// there are choices and none matches.
std::vector<std::size_t> chooseVideo(const Selector& selector, const std::vector<Choice>& choices);

/// The same for sound: by default the best in the user's language, else the first track's best. With
/// languages: the best of each; one that is missing is an error.
std::vector<std::size_t> chooseAudio(const Selector& selector, const std::vector<Choice>& choices,
                                     const std::string& userLanguage);

/// The same for text; by default nothing.
std::vector<std::size_t> chooseText(const Selector& selector, const std::vector<Choice>& choices);

} // namespace tolvane
