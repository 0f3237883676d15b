// skelda-bundle: makes the bundle that a watch application's program runs from, and checks one.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "Analytics/Status/SkeldaBundleCheck.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/TextCoding.h"
#include "Tools/Shared/BundlePath.h"
#include "Tools/skelda-bundle/InformationList.h"

namespace {

namespace fs = std::filesystem;
using skelda::tools::InformationList;
using SkeldaHostSettings::kAPIKey;
using SkeldaHostSettings::Kind;
using SkeldaHostSettings::Setting;

enum ExitCode { kFine = 0, kRefused = 1, kUsage = 2, kNotDone = 3 };

constexpr const char* kDescription =
    "Makes the bundle that the program of a watch application runs from, and checks one that is\n"
    "there. A bundle is a folder, Some.app/PlugIns/Extension.appex/, with the program in it and "
    "an\n"
    "Info.plist beside it that says who it is. The path of the program in it is printed: start it\n"
    "by that.\n"
    "\n"
    "  skelda-bundle build/Runner --identifier com.example.runner --key KEY\n"
    "  skelda-bundle --check Runner.app/PlugIns/Runner.appex";

constexpr const char* kExitCodes =
    "Exit status:\n"
    "  0  made; or, checked, the agent takes events in such a bundle\n"
    "  1  checked: every event would be refused\n"
    "  2  the command line makes no sense\n"
    "  3  a file could not be read or written";

struct Options {
  std::string path;  ///< of the program, or of the bundle to check
  std::string identifier;
  std::string app;
  std::string extension;
  std::string folder = ".";
  std::string version = "1.0";
  std::map<std::string, std::string> settings;  ///< by key; a flag that is on is "YES"
  bool force = false;
  bool check = false;
  bool json = false;
  bool quiet = false;
};

int fail(ExitCode code, const std::string& why) {
  fmt::print(stderr, "skelda-bundle: {}\n", why);
  return code;
}

InformationList listOf(const Options& options, const std::string& extension) {
  InformationList list;
  list.addText("CFBundleIdentifier", options.identifier);
  list.addText("CFBundleExecutable", extension);
  list.addText("CFBundlePackageType", "XPC!");
  list.addText("CFBundleShortVersionString", options.version);
  list.addText("CFBundleVersion", "1");
  for (const Setting& setting : SkeldaHostSettings::kAll) {
    const auto text = options.settings.find(std::string(setting.key));
    if (text != options.settings.end()) list.add(setting, text->second);
  }
  return list;
}

int make(const Options& options) {
  if (options.identifier.empty() || options.settings.count(std::string(kAPIKey.key)) == 0) {
    return fail(kUsage, "--identifier and --key are needed to make a bundle (see --help)");
  }
  const std::string name = fs::path(options.path).filename().string();
  const std::string extension = options.extension.empty() ? name : options.extension;
  const std::string app = options.app.empty() ? name : options.app;
  if (extension.empty() || (app + extension).find('/') != std::string::npos) {
    return fail(kUsage, "names of bundles are names of folders, and have no slash");
  }
  const fs::path bundle =
      fs::path(options.folder) / (app + ".app") / "PlugIns" / (extension + ".appex");
  const fs::path program = bundle / extension, list = bundle / "Info.plist";
  std::error_code error;
  if (!options.force && fs::exists(list, error)) {
    return fail(kNotDone, list.string() + " is there already; --force replaces it");
  }
  fs::create_directories(bundle, error);
  if (!error && !fs::equivalent(options.path, program, error)) {
    error.clear();
    fs::copy_file(options.path, program, fs::copy_options::overwrite_existing, error);
  }
  if (error) return fail(kNotDone, fmt::format("{}: {}", program.string(), error.message()));
  std::ofstream out(list, std::ios::binary | std::ios::trunc);
  out << listOf(options, extension).xml() << std::flush;
  if (!out) return fail(kNotDone, list.string() + " cannot be written");
  fmt::print("{}\n", program.string());
  return kFine;
}

void printLines(const std::vector<SkeldaBundleCheck::Line>& lines, bool isQuiet) {
  for (const auto& line : lines) {
    if (isQuiet && line.problem.empty()) continue;
    if (isQuiet && !line.isPresent && !line.isBlocking) continue;
    fmt::print(isQuiet ? stderr : stdout, "{:9}{:36}{}{}{}\n",
               line.isBlocking         ? "REFUSED"
               : !line.problem.empty() ? "look"
               : line.isPresent        ? "ok"
                                       : "absent",
               line.key, line.value, line.value.empty() || line.problem.empty() ? "" : "; ",
               line.problem);
  }
}

int check(const Options& options) {
  const auto bundle = skelda::platform::Bundle::above(skelda::tools::programOfBundle(options.path));
  const auto lines = SkeldaBundleCheck::linesOf(bundle->infoDictionary());
  const bool isExtension = bundle->bundlePath().ends_with(".appex");
  const bool isRefused =
      !isExtension || std::ranges::any_of(lines, [](const auto& line) { return line.isBlocking; });
  if (options.json) {
    auto keys = nlohmann::ordered_json::array();
    for (const auto& line : lines) {
      keys.push_back({{"key", line.key},
                      {"present", line.isPresent},
                      {"value", line.value},
                      {"problem", line.problem},
                      {"blocking", line.isBlocking}});
    }
    const nlohmann::ordered_json whole{{"bundle", bundle->bundlePath()},
                                       {"extension", isExtension},
                                       {"refused", isRefused},
                                       {"keys", keys}};
    std::cout << whole.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
    return isRefused ? kRefused : kFine;
  }
  if (!options.quiet) fmt::print("{}\n", bundle->bundlePath());
  if (!isExtension) {
    fmt::print(stderr,
               "skelda-bundle: {} is no watch extension: its name must end in \".appex\", and it "
               "must hold an Info.plist\n",
               bundle->bundlePath());
  }
  printLines(lines, options.quiet);
  return isRefused ? kRefused : kFine;
}

void describe(CLI::App& app, Options& options) {
  app.add_option("path", options.path, "The program, which is copied; to check, a bundle")
      ->required();
  app.add_option("--identifier", options.identifier,
                 "CFBundleIdentifier: names the application on the machine, and its folder of "
                 "files. Needed to make one");
  for (const Setting& setting : SkeldaHostSettings::kAll) {
    const std::string key(setting.key);
    const std::string name = skelda::tools::optionOf(setting);
    std::string meaning = fmt::format("\"{}\": {}", key, setting.meaning);
    if (setting.isRequired) meaning += ". Needed to make one";
    if (setting.kind == Kind::flag) {
      app.add_flag_callback(
          name, [&options, key] { options.settings[key] = "YES"; }, meaning);
      continue;
    }
    if (setting.kind == Kind::number) {
      meaning += fmt::format("; {} to {}, {} when absent", setting.least, setting.most,
                             setting.whenAbsent);
    }
    app.add_option_function<std::string>(
           name, [&options, key](const std::string& text) { options.settings[key] = text; },
           meaning)
        ->check([&setting](const std::string& text) {
          return skelda::tools::problemOf(setting, text);
        });
  }
  app.add_option("--app", options.app, "Name of the .app folder; the program's when absent");
  app.add_option("--extension", options.extension,
                 "Name of the .appex folder and of the program in it; the program's when absent");
  app.add_option("--version", options.version, "CFBundleShortVersionString")->capture_default_str();
  app.add_option("--in", options.folder, "The folder to make it in")->capture_default_str();
  app.add_flag("--force", options.force, "Replace what is there");
  auto* const check = app.add_flag(
      "--check", options.check,
      "Make nothing: show each key of a bundle's Info.plist as the agent will take it: whether it "
      "is there, what counts, what is wrong with it, and keys that look mistyped. The API key is "
      "not shown");
  app.add_flag("--json", options.json, "With --check: one JSON object")->needs(check);
  app.add_flag("--quiet", options.quiet, "With --check: only what is wrong, to standard error")
      ->needs(check);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(kDescription, "skelda-bundle");
  app.footer(kExitCodes);
  Options options;
  describe(app, options);
  try {
    app.parse(argc, argv);
    return options.check ? check(options) : make(options);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kFine : kUsage;
  } catch (const std::exception& error) {
    return fail(kNotDone, error.what());
  }
}
