#include "tests/support/HLSMedia.h"

#include "tests/support/Command.h"
#include "tests/support/MediaCache.h"
#include "tests/support/TemporaryDirectory.h"

#include <algorithm>
#include <charconv>
#include <filesystem>

namespace support {

namespace {

namespace fs = std::filesystem;
using Arguments = std::vector<std::string>;

void write(const fs::path& file, std::string_view content) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
}

Arguments streamCommand(const std::string& maps, int height) {
  return words("ffmpeg -nostdin -loglevel error -y -f lavfi -i testsrc2=size=320x180:rate=25:duration=4 "
               "-f lavfi -i sine=frequency=440:duration=4 -f lavfi -i sine=frequency=880:duration=4 " +
               maps + " -s:v " + std::to_string(height * 16 / 9 / 2 * 2) + "x" + std::to_string(height) +
               " -c:v libx264 -preset ultrafast -pix_fmt yuv420p -g 25 -keyint_min 25 -sc_threshold 0 "
               "-c:a aac -b:a 32k -f hls -hls_time 1 -hls_list_size 0 -hls_playlist_type vod");
}

void add(Arguments& to, const Arguments& more) {
  to.insert(to.end(), more.begin(), more.end());
}

constexpr const char* twoVariants = "#EXTM3U\n"
                                    "#EXT-X-STREAM-INF:BANDWIDTH=300000,RESOLUTION=160x90\n"
                                    "90/media.m3u8\n"
                                    "#EXT-X-STREAM-INF:BANDWIDTH=900000,RESOLUTION=320x180\n"
                                    "180/media.m3u8\n";

void makeTransportStreams(HLSForm form, const fs::path& directory) {
  write(directory / "master.m3u8", twoVariants);
  if (form == HLSForm::Encrypted) {
    write(directory / "media.key", std::string_view("0123456789abcdef", 16));
    write(directory / "key.info", "../media.key\nmedia.key\n");
  }
  for (const int height : {90, 180}) {
    const std::string name = std::to_string(height);
    fs::create_directories(directory / name);
    Arguments command = streamCommand("-map 0:v -map 1:a", height);
    if (form == HLSForm::Encrypted)
      add(command, {"-hls_key_info_file", "key.info"});
    if (form == HLSForm::SingleFile)
      add(command, {"-hls_flags", "single_file", "-hls_segment_type", "fmp4"});
    add(command,
        {"-hls_segment_filename", name + (form == HLSForm::SingleFile ? "/media.mp4" : "/segment%d.ts"),
         name + "/media.m3u8"});
    runCommand(command, directory.string());
  }
}

void makeFragmented(const fs::path& directory) {
  const auto stream = [&](const std::string& name, const std::string& map, int height) {
    fs::create_directories(directory / name);
    Arguments command = streamCommand("-map " + map, height);
    add(command, {"-hls_segment_type", "fmp4", "-hls_fmp4_init_filename", "init.mp4", "-hls_segment_filename",
                  name + "/segment%d.m4s", name + "/media.m3u8"});
    runCommand(command, directory.string());
  };
  stream("90", "0:v", 90);
  stream("180", "0:v", 180);
  stream("en", "1:a", 90);
  stream("de", "2:a", 90);
  for (const std::string language : {"en", "de"}) {
    const fs::path text = directory / ("text-" + language);
    fs::create_directories(text);
    std::string playlist = "#EXTM3U\n#EXT-X-VERSION:6\n#EXT-X-TARGETDURATION:2\n#EXT-X-PLAYLIST-TYPE:VOD\n";
    for (int i = 0; i < 2; ++i) {
      const std::string from = std::to_string(2 * i), to = std::to_string(2 * i + 1);
      write(text / ("part" + std::to_string(i) + ".vtt"),
            "WEBVTT\nX-TIMESTAMP-MAP=MPEGTS:0,LOCAL:00:00:00.000\n\n00:00:0" + from + ".000 --> 00:00:0" +
                to + ".500\n" + language + " " + from + "\n");
      playlist += "#EXTINF:2.000,\npart" + std::to_string(i) + ".vtt\n";
    }
    write(text / "media.m3u8", playlist + "#EXT-X-ENDLIST\n");
  }
  write(
      directory / "master.m3u8",
      "#EXTM3U\n#EXT-X-VERSION:7\n#EXT-X-INDEPENDENT-SEGMENTS\n"
      "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",NAME=\"English\",LANGUAGE=\"en\",DEFAULT=YES,AUTOSELECT=YES,"
      "URI=\"en/media.m3u8\"\n"
      "#EXT-X-MEDIA:TYPE=AUDIO,GROUP-ID=\"aud\",NAME=\"Deutsch\",LANGUAGE=\"de\",AUTOSELECT=YES,"
      "URI=\"de/media.m3u8\"\n"
      "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"sub\",NAME=\"English\",LANGUAGE=\"en\",AUTOSELECT=YES,"
      "URI=\"text-en/media.m3u8\"\n"
      "#EXT-X-MEDIA:TYPE=SUBTITLES,GROUP-ID=\"sub\",NAME=\"Deutsch\",LANGUAGE=\"de\",AUTOSELECT=YES,"
      "URI=\"text-de/media.m3u8\"\n"
      "#EXT-X-STREAM-INF:BANDWIDTH=300000,RESOLUTION=160x90,CODECS=\"avc1.42c00b,mp4a.40.2\",AUDIO=\"aud\","
      "SUBTITLES=\"sub\"\n"
      "90/media.m3u8\n"
      "#EXT-X-STREAM-INF:BANDWIDTH=900000,RESOLUTION=320x180,CODECS=\"avc1.42c00d,mp4a.40.2\",AUDIO=\"aud\","
      "SUBTITLES=\"sub\"\n"
      "180/media.m3u8\n");
}

} // namespace

HLSMedia makeHLSMedia(HLSForm form) {
  static constexpr const char* names[] = {"hls-ts", "hls-encrypted", "hls-single-fmp4", "hls-fragmented"};
  HLSMedia media;
  media.directory = cachedMedia(names[static_cast<int>(form)], [&](const fs::path& directory) {
    if (form == HLSForm::FragmentedWithGroups)
      makeFragmented(directory);
    else
      makeTransportStreams(form, directory);
    return directory;
  });
  return media;
}

double decodedSeconds(const std::string& playlist, const std::vector<std::string>& streams) {
  const TemporaryDirectory directory;
  double shortest = 0;
  for (const auto& stream : streams) {
    const std::string result = directory / "progress";
    runCommand({"ffmpeg", "-nostdin", "-loglevel", "error", "-xerror", "-y", "-protocol_whitelist",
                "file,crypto,data", "-i", playlist, "-map", "0:" + stream, "-progress", result, "-f", "null",
                "-"},
               directory.path());
    const std::string text = readFile(result);
    const std::size_t at = text.rfind("out_time_us=");
    std::int64_t microseconds = 0;
    if (at != std::string::npos)
      std::from_chars(text.data() + at + 12, text.data() + text.size(), microseconds);
    const double seconds = static_cast<double>(microseconds) / 1e6;
    shortest = &stream == &streams.front() ? seconds : std::min(shortest, seconds);
  }
  return shortest;
}

} // namespace support
