// SPDX-License-Identifier: Apache-2.0
// widgetctl is the command-line host of the widget engine. Integrators use it
// to install, list, describe, map, recognise and remove widgets exactly as a
// browser would; widget authors use "check" to lint a package and hear
// whether the engine would install it, and "sign" to sign it; "doctor"
// compares the registry with the disk and repairs what it can.
//
// Exit status: 0 success; 1 the engine answered no (a package refused, no
// such widget, not a widget); 2 usage; 3 the environment failed (registry
// unusable, directory not writable, schema missing).

#include <getopt.h>
#include <stdlib.h>
#include <string.h>
#include <widgetengine/WidgetEngineDelegate.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <iostream>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "engine/ToolsFacade.h"
#include "tools/widgetctl/Check.h"
#include "tools/widgetctl/Commands.h"
#include "tools/widgetctl/Doctor.h"
#include "tools/widgetctl/EngineLines.h"
#include "tools/widgetctl/Reply.h"
#include "tools/widgetctl/Sign.h"
#include "tools/widgetctl/Update.h"

using nlohmann::json;
using namespace widgetctl;

namespace {

const char kUsageText[] =
    "Usage: widgetctl [OPTIONS] COMMAND [ARGUMENTS]\n"
    "\n"
    "The command-line host of the widget engine.\n"
    "\n"
    "Commands:\n"
    "  install URL|PATH          install a widget package\n"
    "  list                      list the installed widgets\n"
    "  info NAME                 describe the installed widget NAME\n"
    "  map URL                   the localized copy of a widget file\n"
    "  is-widget URL             whether URL is an installed widget's start page\n"
    "  remove NAME               remove the installed widget NAME\n"
    "  check PACKAGE...          lint packages and say whether they would install\n"
    "  sign FOLDER|PACKAGE       sign a widget as its author or a distributor\n"
    "  doctor                    compare the registry with the disk; --repair\n"
    "  update NAME...|--all      update widgets in place; --check only asks\n"
    "  help [COMMAND]            this text, or one command's\n"
    "\n"
    "Options:\n"
    "  --lang LIST       the reader's accept-language (info, map, update; default:\n"
    "                    from LANGUAGE or LANG)\n"
    "  --json            one JSON document on standard output; the engine's\n"
    "                    lines go to standard error\n"
    "  -q, --quiet       the engine's lines go to standard error; no progress\n"
    "  --strict          check: warnings count as failures\n"
    "  --repair          doctor: repair what it finds\n"
    "  --reinstall       doctor --repair: reinstall widgets whose files are gone\n"
    "  --remove-orphans  doctor --repair: remove directories no widget owns\n"
    "  --key FILE        sign: the signer's private key (PEM)\n"
    "  --cert FILE       sign: the signer's certificate, then its issuers' (PEM)\n"
    "  --distributor     sign: as a distributor (signatureN.xml), not the author\n"
    "  --exclusive-c14n  sign: exclusive XML canonicalization, not C14N 1.1\n"
    "  --check           update: only ask whether updates are on offer\n"
    "  --all             update: every installed widget\n"
    "  --from URL|PATH   update: the package to update the one NAME from\n"
    "  --jitter SECONDS  update of every widget: first wait up to SECONDS at random\n"
    "  -V, --version     the library version and its compiled-in paths\n"
    "  -h, --help        this text\n"
    "\n"
    "Environment:\n"
    "  WIDGET_PATH    root of the installed widgets (ends with \"/\")\n"
    "  YRA_DATA_PATH  directory of the registry widget.db (ends with \"/\")\n"
    "  WIDGETENGINE_SIGNATURES     off, report or require: what installations\n"
    "                              do with signatures (default off)\n"
    "  WIDGETENGINE_TRUST_ANCHORS  folder of the certificates signers must\n"
    "                              chain to\n"
    "\n"
    "Exit status: 0 success; 1 the engine answered no (package refused, no\n"
    "such widget, not a widget); 2 usage; 3 the environment failed (registry\n"
    "unusable, directory not writable, schema missing).\n"
    "\n"
    "See widgetctl(1).\n";

struct Command {
  const char* name;
  int arguments;  // -1: one or more; below that, the command counts them
  const char* help;
};

const Command kCommands[] = {
    {"install", 1,
     "Usage: widgetctl install URL|PATH\n"
     "\n"
     "Downloads the widget package at URL (http://, https:// or file://) or\n"
     "reads the package file PATH, unpacks it below WIDGET_PATH, records it\n"
     "in the registry and prints the launch URL of its start page. An address\n"
     "installed before prints the launch URL of that installation. The\n"
     "engine's progress lines come first; a refusal ends with one line that\n"
     "says why. On a terminal, standard error shows the download and the\n"
     "unpacking as they go (not with --quiet or --json).\n"},
    {"list", 0,
     "Usage: widgetctl list\n"
     "\n"
     "Prints one line per installed widget: name, version and launch URL,\n"
     "separated by tabs (the engine's lines go to standard error).\n"},
    {"info", 1,
     "Usage: widgetctl info NAME [--lang LIST]\n"
     "\n"
     "Describes the installed widget NAME, its texts in the first language of\n"
     "LIST (an accept-language string such as \"fr-CA,fr,en\") that it has.\n"},
    {"map", 1,
     "Usage: widgetctl map URL [--lang LIST]\n"
     "\n"
     "Prints the address of the copy of a widget's file that suits LIST: the\n"
     "file under the widget's locales/ folder for the first language that has\n"
     "one, else URL itself.\n"},
    {"is-widget", 1,
     "Usage: widgetctl is-widget URL\n"
     "\n"
     "Prints \"yes\" when URL is exactly the launch URL of an installed widget,\n"
     "otherwise \"no\" (exit status 1); exit status 3, and no answer, when\n"
     "the registry cannot be used.\n"},
    {"remove", 1,
     "Usage: widgetctl remove NAME\n"
     "\n"
     "Removes the installed widget NAME: its directory and its registry row.\n"},
    {"check", -1,
     "Usage: widgetctl check [--strict] PACKAGE...\n"
     "\n"
     "Lints each package (a path or a URL) like lintian: one line per finding,\n"
     "\"LEVEL: TAG DETAIL\" and its explanation, every finding it can reach.\n"
     "A signed package (or any, under WIDGETENGINE_SIGNATURES=report or\n"
     "require) gets a section on its signatures: each one's verdict, signer\n"
     "and the rules it broke, against the trust anchors installations use.\n"
     "Then installs the package into a private temporary folder, exactly as\n"
     "the engine would, and ends with the verdict: would install, or would be\n"
     "refused and why. Exit status 1 when any package would be refused (with\n"
     "--strict, also when any has an error or warning, or a signature that\n"
     "does not hold). Nothing outside its temporary folder is touched,\n"
     "which is removed on every path.\n"},
    {"doctor", 0,
     "Usage: widgetctl doctor [--repair [--reinstall] [--remove-orphans]]\n"
     "\n"
     "Compares the registry with the disk and reports widgets whose directory\n"
     "is gone, directories under the widget root that no widget owns, and\n"
     "what an installation that died left. --repair makes the first kind\n"
     "removable again and removes them (--reinstall installs them again from\n"
     "their source address), removes what dead installations left, and with\n"
     "--remove-orphans the directories no widget owns. Widget directories\n"
     "replaced by a link, and widgets placed outside the widget root, are\n"
     "reported and never repaired, as are signed widgets whose files no longer\n"
     "match their signatures. A healthy widget is never touched. Exit\n"
     "status 1 when problems remain.\n"},
    {"sign", 1,
     "Usage: widgetctl sign [--distributor] [--exclusive-c14n] --key KEY.pem\n"
     "                      --cert CHAIN.pem FOLDER|PACKAGE\n"
     "\n"
     "Signs the widget in FOLDER (unpacked) in place, or the package file\n"
     "PACKAGE, as its author (author-signature.xml) or, with --distributor,\n"
     "as its next distributor (signatureN.xml). KEY.pem is the signer's\n"
     "private key (RSA or EC); CHAIN.pem its certificate followed by the rest\n"
     "of its chain. A package is unpacked into a private temporary folder,\n"
     "signed there and packed again, config.xml first, under a fresh name\n"
     "beside it that then replaces it. Prints the document it wrote.\n"},
    {"update", -3, kUpdateHelp},
    {"help", -2,
     "Usage: widgetctl help [COMMAND]\n"
     "\n"
     "Describes widgetctl, or one command.\n"},
};

const Command* findCommand(const std::string& name) {
  for (const Command& command : kCommands)
    if (name == command.name) return &command;
  return nullptr;
}

struct Options {
  bool quiet = false;
  bool strict = false;
  bool repair = false;
  bool reinstall = false;
  bool removeOrphans = false;
  bool distributor = false;
  bool exclusiveC14n = false;
  std::optional<std::string> key;
  std::optional<std::string> certificates;
  bool help = false;
  bool version = false;
  bool hasLanguage = false;
  std::string language;
  UpdateOptions update;
};

// The compiled-in places, and where the environment moves them.
int printVersion() {
  const std::string schema = toolsfacade::schemaPath();
  const std::string registry = std::string(WIDGETCTL_DATABASE_DIR) + "widget.db";
  const std::optional<std::string> widgetPath = toolsfacade::environmentPath("WIDGET_PATH");
  const std::optional<std::string> dataPath = toolsfacade::environmentPath("YRA_DATA_PATH");
  if (gJson) {
    gDocument = json{{"command", "version"},
                     {"engine", json::array()},
                     {"version", WIDGETCTL_VERSION},
                     {"schema", schema},
                     {"registry", registry},
                     {"widgetRoot", WIDGETCTL_WIDGET_ROOT},
                     {"registryNow", toolsfacade::registryPath()},
                     {"widgetRootNow", widgetPath.value_or(WIDGETCTL_WIDGET_ROOT)}};
    return finish(kOk);
  }
  std::cout << "widgetctl " << WIDGETCTL_VERSION << " (libwidgetengine "
            << WIDGETCTL_VERSION << ")\n"
            << field("schema", schema) << '\n'
            << field("registry", registry)
            << (dataPath ? "  (now " + toolsfacade::registryPath() + ", from YRA_DATA_PATH)" : "")
            << '\n'
            << field("widget root", WIDGETCTL_WIDGET_ROOT)
            << (widgetPath ? "  (now " + *widgetPath + ", from WIDGET_PATH)" : "")
            << '\n';
  return kOk;
}

// A variable naming a directory must end with "/": the engine glues file
// names to it (conf + "widget.db" would give confwidget.db).
void warnAboutSlashes() {
  for (const char* name : {"WIDGET_PATH", "YRA_DATA_PATH"}) {
    const std::string value = toolsfacade::environmentText(name, "");
    if (!value.empty() && value.back() != '/') {
      std::cerr << kProgram << ": warning: " << name << "=" << value
                << " does not end with \"/\"; the engine will use "
                << value << (std::string(name) == "WIDGET_PATH" ? "widget_NAME"
                                                               : "widget.db")
                << ", beside the directory you meant" << std::endl;
    }
  }
}

std::string defaultLanguage() {
  for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
    const std::string text = toolsfacade::environmentText(name, "");
    if (text.empty() || text == "C" || text == "POSIX") continue;
    // fr_FR.UTF-8:de -> fr-FR,de
    std::string list;
    size_t start = 0;
    while (start <= text.size()) {
      size_t end = text.find(':', start);
      if (end == std::string::npos) end = text.size();
      std::string tag = text.substr(start, end - start);
      tag = tag.substr(0, tag.find_first_of(".@"));
      for (char& c : tag) if (c == '_') c = '-';
      if (!tag.empty() && tag != "C" && tag != "POSIX")
        list += (list.empty() ? "" : ",") + tag;
      start = end + 1;
    }
    if (!list.empty()) return list;
  }
  return std::string();
}

// What the engine reads from an Accept-Language header: a plain list.
std::string localeList(const std::string& header) {
  EngineString list(widgetengine_accept_language(header.c_str()));
  return list ? list.get() : std::string();
}

}  // namespace

int main(int argc, char** argv) {
  // A package whose entries do not match their checksums is refused, by
  // install and by check's trial alike.
  widgetengine_set_verify_entries(1);
  Options options;
  static const struct option kLong[] = {
      {"json", no_argument, nullptr, 'j'},
      {"quiet", no_argument, nullptr, 'q'},
      {"lang", required_argument, nullptr, 'l'},
      {"strict", no_argument, nullptr, 's'},
      {"repair", no_argument, nullptr, 'r'},
      {"reinstall", no_argument, nullptr, 'R'},
      {"remove-orphans", no_argument, nullptr, 'o'},
      {"key", required_argument, nullptr, 'k'},
      {"cert", required_argument, nullptr, 'c'},
      {"distributor", no_argument, nullptr, 'd'},
      {"exclusive-c14n", no_argument, nullptr, 'x'},
      {"check", no_argument, nullptr, 'C'},
      {"all", no_argument, nullptr, 'a'},
      {"from", required_argument, nullptr, 'f'},
      {"jitter", required_argument, nullptr, 'J'},
      {"version", no_argument, nullptr, 'V'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0}};
  // --json is known before the options are read, so that a usage error
  // among them is answered as a document too.
  // (getopt_long takes any unambiguous abbreviation, "--j" among them.)
  for (int i = 1; i < argc && strcmp(argv[i], "--") != 0; ++i) {
    const size_t length = strlen(argv[i]);
    if (length >= 3 && strncmp(argv[i], "--json", length) == 0) gJson = true;
    // "--j" was --json before --jitter came, and stays so.
    if (strcmp(argv[i], "--j") == 0) argv[i] = const_cast<char*>("--json");
  }
  opterr = 0;
  int c;
  while ((c = getopt_long(argc, argv, "qVh", kLong, nullptr)) != -1) {
    switch (c) {
      case 'j': break;
      case 'q': options.quiet = true; break;
      case 'l': options.language = optarg; options.hasLanguage = true; break;
      case 's': options.strict = true; break;
      case 'r': options.repair = true; break;
      case 'R': options.reinstall = true; break;
      case 'o': options.removeOrphans = true; break;
      case 'k': options.key = optarg; break;
      case 'c': options.certificates = optarg; break;
      case 'd': options.distributor = true; break;
      case 'x': options.exclusiveC14n = true; break;
      case 'C': options.update.check = true; break;
      case 'a': options.update.all = true; break;
      case 'f': options.update.from = optarg; options.update.hasFrom = true; break;
      case 'J': options.update.jitter = optarg; options.update.hasJitter = true; break;
      case 'V': options.version = true; break;
      case 'h': options.help = true; break;
      default: {
        // optopt is the option's value in kLong, or 0 for an unknown one.
        std::string option = argv[optind - 1];
        for (const struct option* known = kLong; optopt && known->name; ++known)
          if (known->val == optopt) option = std::string("--") + known->name;
        return usageError(c == ':' || optopt == 'l' || optopt == 'k' || optopt == 'c' ||
                                  optopt == 'f' || optopt == 'J'
                              ? option + " needs a value"
                              : "unknown option " + option,
                          nullptr);
      }
    }
  }
  std::vector<std::string> words(argv + optind, argv + argc);
  gEngineToStderr = gJson || options.quiet;
  gProgress = !gJson && !options.quiet;

  if (options.version) return printVersion();
  if (words.empty()) {
    if (options.help) {
      std::cout << kUsageText;
      return kOk;
    }
    return usageError("no command given", nullptr);
  }
  const std::string name = words[0];
  words.erase(words.begin());
  const Command* command = findCommand(name);
  if (!command) return usageError("unknown command " + name, nullptr);
  if (name == "help") {
    if (words.empty() && options.help) {
      std::cout << command->help;
      return kOk;
    }
    if (words.empty()) {
      std::cout << kUsageText;
      return kOk;
    }
    const Command* about = findCommand(words[0]);
    if (!about || words.size() > 1)
      return usageError("no command called " + words[0], nullptr);
    std::cout << about->help;
    return kOk;
  }
  if (options.help) {
    std::cout << command->help;
    return kOk;
  }
  if (command->arguments >= 0 && words.size() != static_cast<size_t>(command->arguments)) {
    return usageError(command->arguments == 0
                          ? name + " takes no argument"
                          : name + " takes one argument",
                      command->name);
  }
  if (command->arguments == -1 && words.empty())
    return usageError(name + " needs at least one package", command->name);
  if (options.hasLanguage && name != "info" && name != "map" && name != "update")
    return usageError("--lang is for info, map and update", command->name);
  if ((options.repair || options.reinstall || options.removeOrphans) && name != "doctor")
    return usageError("--repair, --reinstall and --remove-orphans are for doctor",
                      command->name);
  if ((options.reinstall || options.removeOrphans) && !options.repair)
    return usageError("--reinstall and --remove-orphans go with --repair", command->name);
  if (options.strict && name != "check")
    return usageError("--strict is for check", command->name);
  if ((options.key || options.certificates || options.distributor ||
       options.exclusiveC14n) && name != "sign") {
    return usageError("--key, --cert, --distributor and --exclusive-c14n are for sign",
                      command->name);
  }
  if (name == "sign" && (!options.key || !options.certificates))
    return usageError("sign needs --key and --cert", command->name);
  if (options.update.any() && name != "update")
    return usageError("--check, --all, --from and --jitter are for update", command->name);
  if (name == "update" && !updateUsageError(options.update, words).empty())
    return usageError(updateUsageError(options.update, words), command->name);

  // The answers of these are data for scripts: the engine's lines stay
  // apart, on standard error.
  if (name == "list" || name == "info" || name == "map" || name == "is-widget")
    gEngineToStderr = true;
  warnAboutSlashes();
  gDocument = json::object();
  gDocument["command"] = name;
  gDocument["engine"] = json::array();
  // --lang takes what a browser sends (quality values and all); the engine
  // reads a plain list.
  const std::string language = options.hasLanguage
                                   ? localeList(options.language)
                                   : defaultLanguage();

  if (name == "check") return runCheck(words, options.strict);
  if (name == "install") return runInstall(words[0]);
  if (name == "sign") {
    SignOptions signOptions;
    signOptions.keyPath = *options.key;
    signOptions.certificatesPath = *options.certificates;
    signOptions.distributor = options.distributor;
    signOptions.exclusiveC14n = options.exclusiveC14n;
    return runSign(words[0], signOptions);
  }
  if (name == "update") return runUpdate(options.update, words, language);
  if (name == "doctor") {
    Doctor::Options doctorOptions;
    doctorOptions.repair = options.repair;
    doctorOptions.reinstall = options.reinstall;
    doctorOptions.removeOrphans = options.removeOrphans;
    return runDoctor(doctorOptions);
  }

  // is-widget's "no" would say that the address is no widget's, which an
  // unusable registry cannot tell.
  if (name == "list" || name == "info" || name == "remove" || name == "is-widget") {
    std::string reason;
    if (!registryUsable(&reason)) return finish(kEnvironment, reason);
  }
  std::vector<std::string> lines;
  RefPtr<WebWidgetEngineDelegate> engine;
  {
    EngineLines capture(&lines);
    engine = WidgetEngineDelegate::createInstance();
  }
  passOn(lines);
  if (!engine) return finish(kEnvironment, "the engine could not be created");
  if (name == "list") return runList(engine.get());
  if (name == "info") return runInfo(engine.get(), words[0], language);
  if (name == "map") return runMap(engine.get(), words[0], language);
  if (name == "is-widget") return runIsWidget(engine.get(), words[0]);
  return runRemove(engine.get(), words[0]);
}
