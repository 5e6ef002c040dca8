#pragma once

#include "platform/assets/MediaSelection.h"
#include "platform/foundation/Error.h"
#include "platform/transfer/URLRequest.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace platform {

class TransferService;

/// Key of an asset's options: request headers (`HTTPHeaders`) for everything that is fetched for the asset.
inline constexpr const char* AVURLAssetHTTPHeaderFieldsKey = "AVURLAssetHTTPHeaderFieldsKey";

/// Errors of the asset rooms; transfer errors keep their own domain, as the cause.
inline const ErrorDomain AVFoundationErrorDomain{"AVFoundationErrorDomain"};

/// Codes of AVFoundationErrorDomain.
enum AssetErrorCode : std::int64_t {
  AVErrorUnknown = -11800,
  AVErrorOperationInterrupted = -11847,
  AVErrorFileFormatNotRecognized = -11828,       ///< no playlist, or one that breaks the rules
  AVErrorContentIsUnavailable = -11863,          ///< something that the playlists name cannot be fetched
  AVErrorOperationNotSupportedForAsset = -11838, ///< live, or of a kind that is not downloaded
};

/// What an asset needs from its application. Plain values.
struct AssetEnvironment {
  /// Fetches the playlists; none: the process's default.
  std::shared_ptr<TransferService> service;
  /// The user's languages, best first, as BCP 47 tags; empty: the language of `Locale::current()`.
  std::vector<std::string> preferredLanguages;
};

/// One quality of an asset, as the master playlist tells it. Plain values.
struct AssetVariant {
  std::int64_t bitrate = 0;                      ///< peak, bits per second
  std::optional<std::int64_t> averageBitrate;    ///< bits per second
  std::optional<std::pair<int, int>> resolution; ///< width, height
  std::string codecs;                            ///< as written; empty: not told
  std::optional<double> frameRate;
};

/// Timed media behind the URL of an HLS playlist, a master playlist or a media playlist.
///
/// Made without fetching anything. What the playlist tells is there once the key "tracks" is loaded; before
/// that, groups and variants are empty. Thread-safe.
class URLAsset : public std::enable_shared_from_this<URLAsset> {
public:
  enum class KeyValueStatus { Unknown, Loading, Loaded, Failed, Cancelled };

  static std::shared_ptr<URLAsset> assetWithURL(URL url, AssetEnvironment environment = {});
  /// Unknown keys in `options` are ignored.
  static std::shared_ptr<URLAsset> assetWithURL(URL url, const UserInfo& options,
                                                AssetEnvironment environment = {});
  virtual ~URLAsset() = default;

  virtual const platform::URL& url() const = 0;
  virtual const HTTPHeaders& headers() const = 0;
  virtual const AssetEnvironment& environment() const = 0;

  /// Loads the keys; "tracks" is the only one there is, others fail. `completion` is called exactly once, on
  /// a queue of the asset: when every key is loaded, failed or cancelled (at once when they already are).
  /// Several calls share one fetch.
  virtual void loadValuesAsynchronouslyForKeys(const std::vector<std::string>& keys,
                                               std::function<void()> completion) = 0;

  /// `error` is set with Failed and Cancelled: it names the URL, what is wrong and what to do.
  virtual KeyValueStatus statusOfValueForKey(const std::string& key, ErrorRef* error = nullptr) const = 0;

  /// Ends what is loading; its status becomes Cancelled.
  virtual void cancelLoading() = 0;

  /// Null before "tracks" is loaded, and when the asset has no choice of that kind.
  virtual MediaSelectionGroupRef
  mediaSelectionGroupForMediaCharacteristic(const std::string& characteristic) const = 0;

  /// What would be played without a choice of the user: in each group the option in the best of the user's
  /// languages among those that may be chosen automatically, else the default one, else the first for sound
  /// and picture and none for captions. Captions are never chosen by language alone: they must be the
  /// default, or forced ones in the language of the sound.
  virtual MediaSelection preferredMediaSelection() const = 0;

  /// In the playlist's order; empty before "tracks" is loaded, and for a media playlist.
  virtual std::vector<AssetVariant> variants() const = 0;
};

} // namespace platform
