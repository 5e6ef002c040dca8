#include "apps/tolvane/Commands.h"
#include "apps/tolvane/Demo.h"
#include "apps/tolvane/Host.h"
#include "apps/tolvane/Text.h"

#include "platform/foundation/Exception.h"
#include "platform/foundation/Locale.h"
#include "platform/foundation/StringTable.h"
#include "qvc/Log.h"

#include <CLI/CLI.hpp>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <malloc.h>

namespace {

using namespace tolvane;

/// "Name: value", as curl takes it.
void addHeader(platform::HTTPHeaders& headers, const std::string& text) {
  std::size_t colon = text.find(':');
  std::string name = text.substr(0, colon);
  bool token =
      !name.empty() && name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                              "!#$%&'*+-.^_`|~") == std::string::npos;
  if (colon == std::string::npos || !token || text.find_first_of("\r\n") != std::string::npos)
    throw Failure("'" + text + "' is no header; write --header 'Name: value'", statusUsage);
  std::size_t value = text.find_first_not_of(" \t", colon + 1);
  headers[name] = value == std::string::npos ? "" : text.substr(value);
}

struct Arguments {
  std::string library, source, base, title, video, audio, text, progress = "auto", identifier;
  std::vector<std::string> sources, identifiers, headers;
  int jobs = 0;
  bool json = false, all = false, origin = false;
};

DownloadOptions downloadOptions(const Arguments& arguments, const platform::HTTPHeaders& headers,
                                ProgressMode mode) {
  DownloadOptions options;
  options.urls = arguments.sources;
  options.title = arguments.title;
  try {
    if (!arguments.video.empty())
      options.video = parseVideoSelector(arguments.video);
    if (!arguments.audio.empty())
      options.audio = parseTrackSelector(arguments.audio);
    if (!arguments.text.empty())
      options.text = parseTrackSelector(arguments.text);
  } catch (const SelectionError& error) {
    throw Failure(error.what(), statusUsage);
  }
  options.headers = headers;
  if (arguments.jobs > 0)
    options.jobs = arguments.jobs;
  options.progress = mode;
  return options;
}

int run(int argc, char** argv) {
  CLI::App app{"Downloads video presentations and plays them back from disk, offline."};
  app.require_subcommand(1);
  app.set_version_flag("--version", "tolvane 4.0.0");
  Arguments arguments;

  auto library = [&](CLI::App* command) {
    command->add_option("--library", arguments.library,
                        "directory of the downloads (default: $TOLVANE_LIBRARY, else below $XDG_DATA_HOME)");
  };
  auto header = [&](CLI::App* command) {
    command->add_option("--header", arguments.headers, "'Name: value' for every request; may be repeated")
        ->allow_extra_args(false)
        ->take_all();
  };
  auto running = [&](CLI::App* command) {
    command
        ->add_option(
            "--jobs", arguments.jobs,
            "most transfers at once: of files and of each quality of a presentation (default 4), and of "
            "an HLS package (default 12)")
        ->check(CLI::Range(1, 64));
    command->add_option("--progress", arguments.progress, "auto, bar, plain, json or none");
  };

  auto* inspect = app.add_subcommand("inspect", "show what a manifest offers");
  inspect->add_option("SOURCE", arguments.source, "URL or file of a manifest")->required();
  inspect->add_flag("--json", arguments.json, "as JSON");
  header(inspect);

  auto* resources =
      app.add_subcommand("resources", "list every resource of every quality, as a download requests it");
  resources->add_option("SOURCE", arguments.source, "URL or file of a manifest")->required();
  resources->add_option("--base", arguments.base, "URL that a manifest file came from");
  resources->add_flag("--json", arguments.json, "as JSON");
  header(resources);

  auto* download = app.add_subcommand("download", "download presentations and files, or go on with them");
  download->add_option("URL", arguments.sources, "addresses of manifests and of MP4 or MP3 files")
      ->required();
  library(download);
  download->add_option("--title", arguments.title, "name to show in lists, of a single URL");
  download->add_option("--video", arguments.video, "best (default), worst, all, none, 720p, 1500k or id:X");
  download->add_option("--audio", arguments.audio, "best, all, none, languages such as en,de, or id:X");
  download->add_option("--text", arguments.text, "best, all, none (default), languages, or id:X");
  header(download);
  running(download);

  auto* list = app.add_subcommand("list", "show the downloads of a library");
  library(list);
  list->add_flag("--json", arguments.json, "as JSON");

  auto* resume =
      app.add_subcommand("resume", "go on with downloads; their choice of qualities is kept with them");
  auto* resumed =
      resume->add_option("ID", arguments.identifiers, "identifiers, or unambiguous beginnings of them");
  auto* everything = resume->add_flag("--all", arguments.all, "all that are not complete")->excludes(resumed);
  library(resume);
  running(resume);

  auto* cancel = app.add_subcommand("cancel", "give downloads up, keeping what is on disk");
  cancel->add_option("ID", arguments.identifiers, "identifiers")->required();
  library(cancel);

  auto* remove = app.add_subcommand("remove", "delete downloads with everything on disk");
  remove->add_option("ID", arguments.identifiers, "identifiers")->required();
  library(remove);

  auto* verify = app.add_subcommand("verify", "compare what is on disk with what it should be");
  verify->add_option("ID", arguments.identifier, "identifier")->required();
  verify->add_flag("--origin", arguments.origin, "ask the server too whether its file has the same length");
  header(verify);
  library(verify);

  auto* demo = app.add_subcommand("demo", "show the main job on this machine, over loopback");

  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& help) {
    return app.exit(help);
  } catch (const CLI::CallForVersion& version) {
    return app.exit(version);
  } catch (const CLI::ParseError& error) {
    std::fprintf(stderr, "tolvane: %s; see tolvane --help\n", oneLine(error.what()).c_str());
    return statusUsage;
  }
  if (*resume && arguments.identifiers.empty() && !*everything)
    throw Failure("resume what? give identifiers or --all", statusUsage);

  platform::HTTPHeaders headers;
  for (const std::string& text : arguments.headers)
    addHeader(headers, text);
  ProgressMode mode = ProgressMode::Auto;
  if (!parseProgressMode(arguments.progress, mode))
    throw Failure("'" + arguments.progress + "' is no progress display; use auto, bar, plain, json or none",
                  statusUsage);

  if (*inspect)
    return inspectCommand(arguments.source, headers, arguments.json);
  if (*resources)
    return resourcesCommand(arguments.source, arguments.base, headers, arguments.json);
  if (*demo)
    return runDemo(std::filesystem::read_symlink("/proc/self/exe").string());

  const std::string directory = libraryDirectory(arguments.library);
  if (*list)
    return listCommand(directory, arguments.json);
  if (*download)
    return downloadCommand(directory, downloadOptions(arguments, headers, mode));
  if (*resume)
    return resumeCommand(directory, arguments.identifiers, arguments.all,
                         arguments.jobs > 0 ? std::optional<int>(arguments.jobs) : std::nullopt, mode);
  if (*cancel)
    return cancelCommand(directory, arguments.identifiers);
  if (*remove)
    return removeCommand(directory, arguments.identifiers);
  return verifyCommand(directory, arguments.identifier, arguments.origin, headers);
}

/// Every transfer takes 128 KiB for a moment. By default they go back to the system each time, and come again
/// page by page.
void keepFreedMemory() {
#ifdef __GLIBC__
  mallopt(M_MMAP_THRESHOLD, 256 << 10);
  mallopt(M_TRIM_THRESHOLD, 1 << 20);
#endif
}

/// The host has ended in order, and what was to be kept is on disk. What is left would only be taken apart,
/// forty libraries among it, and goes with the process.
[[noreturn]] void leave(int status) {
  std::fflush(nullptr);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  std::exit(status); // they report at the end
#else
  std::_Exit(status);
#endif
}

} // namespace

int main(int argc, char** argv) {
  keepFreedMemory();
  // The libraries' log writes to standard output, which belongs to the commands' results.
  qvc::debug::Log::instance().removeAllOutputAdapters();
  platform::Locale::setCurrent(platform::Locale(tolvane::userLocaleName()));
  // Texts and characters in the user's language; numbers stay as they are, since JSON and manifests hold
  // them.
  std::setlocale(LC_CTYPE, "");
  std::setlocale(LC_MESSAGES, "");
  platform::StringTable::bind("tolvane", TOLVANE_LOCALE_DIRECTORY);
  int status = tolvane::statusFailed;
  try {
    status = run(argc, argv);
  } catch (const tolvane::Failure& failure) {
    std::fprintf(stderr, "tolvane: %s\n", tolvane::oneLine(failure.what()).c_str());
    status = failure.status();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tolvane: %s\n", tolvane::oneLine(error.what()).c_str());
  }
  leave(status);
}
