// SPDX-License-Identifier: Apache-2.0
// widgetctl is a small command-line host of the widget engine. Integrators use
// it to install, list, describe, map, recognise and remove widgets exactly as
// a browser would (through WidgetEngineDelegate, with the engine's own output
// passed through); widget authors use "check" to see what an installation of
// their package would record, or why it would be refused, without touching
// the registry or the widget root.
//
// The answer of a command is printed last, on standard output. A command that
// fails exits with status 1 and a one-line reason on standard error; a usage
// error exits with status 2.

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <widgetengine/WidgetEngineDelegate.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "config/WidgetConfig.h"
#include "install/WidgetInstaller.h"
#include "registry/SqlLite3.h"

namespace {

const char kProgram[] = "widgetctl";

const char kUsage[] =
    "Usage: widgetctl COMMAND [ARGUMENTS]\n"
    "\n"
    "A command-line host of the widget engine.\n"
    "\n"
    "Commands:\n"
    "  install URL               install the widget package at URL\n"
    "  list                      list the installed widgets\n"
    "  info NAME [--lang LIST]   describe the installed widget NAME\n"
    "  map URL [--lang LIST]     the localized copy of a widget file\n"
    "  is-widget URL             whether URL is an installed widget's start "
    "page\n"
    "  remove NAME               remove the installed widget NAME\n"
    "  check PACKAGE             check a local package without installing it\n"
    "\n"
    "\"widgetctl COMMAND --help\" describes one command.\n"
    "\n"
    "Environment:\n"
    "  WIDGET_PATH    root of the installed widgets (end it with \"/\"); the\n"
    "                 package is downloaded below it, into its tmp/ folder\n"
    "  YRA_DATA_PATH  directory of the registry widget.db (end it with \"/\")\n"
    "\n"
    "The engine's own progress lines come first; the answer is printed last.\n"
    "Exit status: 0 success, 1 failure (reason on standard error), 2 usage.\n";

struct Command {
  const char* name;
  const char* help;
};

const Command kCommands[] = {
    {"install",
     "Usage: widgetctl install URL\n"
     "\n"
     "Downloads the widget package at URL (http://, https:// or file://),\n"
     "unpacks it below WIDGET_PATH, records it in the registry and prints the\n"
     "launch URL of its start page. A URL that is already installed prints "
     "the\n"
     "launch URL of that installation.\n"},
    {"list",
     "Usage: widgetctl list\n"
     "\n"
     "Prints one line per installed widget: its name, its version and its\n"
     "launch URL, separated by tabs. Nothing is printed when no widget is\n"
     "installed.\n"},
    {"info",
     "Usage: widgetctl info NAME [--lang LIST]\n"
     "\n"
     "Describes the installed widget NAME. LIST is an accept-language string\n"
     "such as \"fr-CA,fr,en\"; the texts are taken in the first of its\n"
     "languages that the widget has, else those given without a language.\n"},
    {"map",
     "Usage: widgetctl map URL [--lang LIST]\n"
     "\n"
     "Prints the URL of the copy of a widget's file that best suits LIST (an\n"
     "accept-language string such as \"de,en\"): the file under the widget's\n"
     "locales/ folder for the first language that has one. When there is no\n"
     "such copy, URL itself is printed.\n"},
    {"is-widget",
     "Usage: widgetctl is-widget URL\n"
     "\n"
     "Prints \"yes\" when URL is exactly the launch URL of an installed "
     "widget,\n"
     "otherwise \"no\" (and exits with status 1).\n"},
    {"remove",
     "Usage: widgetctl remove NAME\n"
     "\n"
     "Removes the installed widget NAME: its directory and its registry "
     "row.\n"},
    {"check",
     "Usage: widgetctl check PACKAGE\n"
     "\n"
     "Installs the local package file PACKAGE into a temporary place of its\n"
     "own, exactly as \"install\" would, prints what the installation would\n"
     "record, the start file and the icons it would choose, and removes\n"
     "everything again. The registry and the widget root are not touched.\n"
     "When the package would be refused, the engine's lines above the reason\n"
     "say why.\n"},
};

const Command* findCommand(const std::string& name) {
  for (const Command& command : kCommands)
    if (name == command.name) return &command;
  return nullptr;
}

// Standard output first, so that the engine's lines stay above the reason.
int fail(const std::string& reason) {
  std::cout.flush();
  fflush(stdout);
  std::cerr << kProgram << ": " << reason << std::endl;
  return 1;
}

int usageError(const std::string& reason, const char* command) {
  std::cerr << kProgram << ": " << reason << " (see \"widgetctl "
            << (command ? std::string(command) + " " : std::string())
            << "--help\")" << std::endl;
  return 2;
}

// The arguments of one command: positional ones and the --lang option.
struct Arguments {
  std::vector<std::string> positional;
  std::string language;
  bool hasLanguage = false;
  bool help = false;
  std::string error;
};

Arguments parseArguments(int argc, char** argv, bool acceptsLanguage) {
  Arguments arguments;
  bool optionsEnded = false;
  for (int i = 2; i < argc; ++i) {
    const std::string argument = argv[i];
    if (!optionsEnded && argument == "--") {
      optionsEnded = true;
    } else if (!optionsEnded && (argument == "--help" || argument == "-h")) {
      arguments.help = true;
    } else if (!optionsEnded && acceptsLanguage && argument == "--lang") {
      if (i + 1 >= argc) {
        arguments.error = "--lang needs a value";
        return arguments;
      }
      arguments.language = argv[++i];
      arguments.hasLanguage = true;
    } else if (!optionsEnded && acceptsLanguage &&
               argument.compare(0, 7, "--lang=") == 0) {
      arguments.language = argument.substr(7);
      arguments.hasLanguage = true;
    } else if (!optionsEnded && argument.size() > 1 && argument[0] == '-') {
      arguments.error = "unknown option " + argument;
      return arguments;
    } else {
      arguments.positional.push_back(argument);
    }
  }
  return arguments;
}

// Owns a string that the engine allocated with strdup.
struct FreeDeleter {
  void operator()(char* text) const { free(text); }
};
typedef std::unique_ptr<char, FreeDeleter> EngineString;

// "label:" padded to one column, then the value.
std::string field(const std::string& label, const std::string& value) {
  std::string line = label + ":";
  line.append(line.size() < 15 ? 15 - line.size() : 1, ' ');
  return line + value;
}

void printField(const std::string& label, const std::string& value) {
  std::cout << field(label, value) << std::endl;
}

void printRecord(const WidgetsData& widget) {
  printField("name", widget.getName());
  printField("title", widget.getWidgetName());
  printField("short title", widget.getWidgetShorName());
  printField("description", widget.getDescription());
  printField("version", widget.getVersion());
  printField("width", std::to_string(widget.getWidth()));
  printField("height", std::to_string(widget.getHeight()));
  printField("author", widget.getAuthor());
  printField("author email", widget.getAuthorEmail());
  printField("author href", widget.getAuthorHref());
  printField("license", widget.getLicense());
  printField("license href", widget.getLicenseHref());
  printField("icon", widget.getIcon());
  printField("launch URL", widget.getLaunchURL());
  printField("source URL", widget.getSourceURL());
  printField("storage path", widget.getStoragePath());
}

int runInstall(WebWidgetEngineDelegate* engine, const std::string& url) {
  EngineString launchURL(engine->receiveWidget(url.c_str(), nullptr));
  if (!launchURL) return fail("could not install " + url);
  std::cout << launchURL.get() << std::endl;
  return 0;
}

int runList(WebWidgetEngineDelegate* engine) {
  std::vector<std::unique_ptr<WidgetsData>> widgets;
  for (WidgetsData* widget : engine->getAll(nullptr))
    widgets.emplace_back(widget);
  for (const std::unique_ptr<WidgetsData>& widget : widgets)
    std::cout << widget->getName() << '\t' << widget->getVersion() << '\t'
              << widget->getLaunchURL() << std::endl;
  return 0;
}

int runInfo(WebWidgetEngineDelegate* engine, const std::string& name,
            const std::string& language) {
  std::unique_ptr<WidgetsData> widget(
      engine->getInfo(name.c_str(), nullptr, language.c_str()));
  if (!widget) return fail("no information on a widget called " + name);
  printRecord(*widget);
  return 0;
}

int runMap(WebWidgetEngineDelegate* engine, const std::string& url,
           const std::string& language) {
  EngineString mapped(engine->mapResource(url.c_str(), language.c_str()));
  std::cout << (mapped ? mapped.get() : url) << std::endl;
  return 0;
}

int runIsWidget(WebWidgetEngineDelegate* engine, const std::string& url) {
  if (engine->isWidget(url.c_str()) == 1) {
    std::cout << "yes" << std::endl;
    return 0;
  }
  std::cout << "no" << std::endl;
  return fail(url + " is not the launch URL of an installed widget");
}

int runRemove(WebWidgetEngineDelegate* engine, const std::string& name) {
  const int status = engine->deleteWidget(name.c_str(), nullptr);
  if (status == 1) {
    std::cout << "removed " << name << std::endl;
    return 0;
  }
  if (status == 0) return fail("no widget called " + name);
  return fail("could not remove " + name);
}

// --- check ---------------------------------------------------------------

// What each failing installer status means for a package.
const char* statusReason(int status) {
  switch (status) {
    case 3:
      return "the temporary registry could not be opened";
    case 5:
      return "the package could not be read";
    case 6:
      return "the package is not a valid widget archive";
    case 7:
      return "the package has no config.xml";
    case 8:
      return "config.xml was rejected";
    case 9:
      return "the package has no usable start file";
    case 10:
      return "the widget could not be recorded";
    case 11:
      return "the downloaded package could not be removed";
    default:
      return "the installation failed";
  }
}

// A file:// URL for an absolute path; bytes other than unreserved ones and
// "/" are percent-encoded so that the URL reaches the file unchanged.
std::string fileURL(const std::string& path) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string url = "file://";
  for (unsigned char c : path) {
    if (isalnum(c) || c == '/' || c == '-' || c == '.' || c == '_' ||
        c == '~') {
      url += static_cast<char>(c);
    } else {
      url += '%';
      url += kHex[c >> 4];
      url += kHex[c & 15];
    }
  }
  return url;
}

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
  remove(path);
  return 0;
}

// Deletes a tree bottom-up; links are removed, never followed.
void removeTree(const std::string& path) {
  nftw(path.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

void setVariable(const char* name, const std::string& value) {
  setenv(name, value.c_str(), 1);
}

// Shows an absolute path of the sandbox as it would be under the real root.
std::string underRoot(const std::string& text, const std::string& sandboxRoot) {
  std::string shown = text;
  for (size_t at = shown.find(sandboxRoot); at != std::string::npos;
       at = shown.find(sandboxRoot, at)) {
    shown.replace(at, sandboxRoot.size(), "<widget root>/");
  }
  return shown;
}

int runCheck(const std::string& package) {
  struct stat info;
  if (stat(package.c_str(), &info) != 0 || !S_ISREG(info.st_mode) ||
      access(package.c_str(), R_OK) != 0)
    return fail("cannot read the package file " + package);
  std::unique_ptr<char, FreeDeleter> absolute(
      realpath(package.c_str(), nullptr));
  if (!absolute) return fail("cannot read the package file " + package);

  const char* tmp = getenv("TMPDIR");
  std::string sandbox =
      std::string(tmp && *tmp ? tmp : P_tmpdir) + "/widgetctl-check-XXXXXX";
  if (!mkdtemp(&sandbox[0])) return fail("cannot create a temporary directory");
  const std::string widgetRoot = sandbox + "/widgets/";
  const std::string registryDir = sandbox + "/conf/";
  mkdir(widgetRoot.c_str(), 0700);
  mkdir((widgetRoot + "tmp").c_str(), 0700);
  mkdir(registryDir.c_str(), 0700);
  // The installer and its registry take their places from these variables;
  // pointing them into the sandbox keeps the real ones out of reach.
  setVariable("WIDGET_PATH", widgetRoot);
  setVariable("YRA_DATA_PATH", registryDir);

  const std::string url = fileURL(absolute.get());
  int status;
  std::unique_ptr<WidgetsData> recorded;
  std::vector<std::string> lines;
  {
    WidgetInstaller installer(url);
    status = installer.run();
    if (status == 0) {
      SqlLite3 registry;
      std::vector<WidgetsData*> rows = registry.selectWidgetsBySourceURL(url);
      for (size_t i = 0; i < rows.size(); ++i) {
        if (i == 0)
          recorded.reset(rows[i]);
        else
          delete rows[i];
      }
      const WidgetConfig& config = *installer.getConfig();
      // The configuration record as the parser filled it, in the engine's
      // own words, ahead of the summary.
      std::cout << std::endl << "config.xml, as parsed:" << std::endl;
      config.print();
      lines.push_back(field(
          "start file", config.getStartFile() ? *config.getStartFile() : ""));
      for (const WidgetIconInfo& icon : config.getIcons()) {
        std::string line = field("icon", icon.getSrc());
        if (icon.getWidth() || icon.getHeight()) {
          line += " (" +
                  (icon.getWidth() ? std::to_string(*icon.getWidth()) : "?") +
                  "x" +
                  (icon.getHeight() ? std::to_string(*icon.getHeight()) : "?") +
                  ")";
        }
        lines.push_back(line);
      }
      for (const std::string& file : installer.getFiles())
        lines.push_back(field("file", file));
      // Localized texts as the registry would keep them, every language.
      const std::pair<const char*, const WidgetConfig::LocalizedMap*> maps[] = {
          {"name", &config.getNames()},
          {"shortname", &config.getShortNames()},
          {"description", &config.getDescriptions()},
          {"license", &config.getLicenses()},
          {"licensehref", &config.getLicenseHrefs()},
      };
      for (const auto& map : maps)
        for (const auto& text : *map.second)
          lines.push_back(field(
              std::string(map.first) + " [" + text.first + "]", text.second));
      for (const WidgetFeatureInfo& feature : config.getFeatures())
        lines.push_back(
            field("feature",
                  feature.getName() +
                      (feature.isRequired() ? " (required)" : " (optional)")));
      for (const WidgetPreferenceInfo& preference : config.getPreferences())
        lines.push_back(field(
            "preference", preference.getName() + " = " + preference.getValue() +
                              (preference.isReadonly() ? " (read-only)" : "")));
    }
  }
  removeTree(sandbox);

  if (status != 0) {
    return fail(package + " would not install: " + statusReason(status) +
                " (status " + std::to_string(status) + ")");
  }
  printField("package", package);
  if (recorded) {
    printField("name", recorded->getName());
    printField("title", recorded->getWidgetName());
    printField("short title", recorded->getWidgetShorName());
    printField("version", recorded->getVersion());
    printField("width", std::to_string(recorded->getWidth()));
    printField("height", std::to_string(recorded->getHeight()));
    printField("author", recorded->getAuthor());
    printField("author email", recorded->getAuthorEmail());
    printField("author href", recorded->getAuthorHref());
    printField("storage path",
               underRoot(recorded->getStoragePath(), widgetRoot));
    printField("launch URL", underRoot(recorded->getLaunchURL(), widgetRoot));
    printField("icon", underRoot(recorded->getIcon(), widgetRoot));
  }
  for (const std::string& line : lines) std::cout << line << std::endl;
  printField("result", "the package would install");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usageError("no command given", nullptr);
  const std::string commandName = argv[1];
  if (commandName == "--help" || commandName == "-h" || commandName == "help") {
    std::cout << kUsage;
    return 0;
  }
  const Command* command = findCommand(commandName);
  if (!command) return usageError("unknown command " + commandName, nullptr);

  const bool acceptsLanguage = commandName == "info" || commandName == "map";
  Arguments arguments = parseArguments(argc, argv, acceptsLanguage);
  if (arguments.help) {
    std::cout << command->help;
    return 0;
  }
  if (!arguments.error.empty())
    return usageError(arguments.error, command->name);
  const size_t expected = commandName == "list" ? 0 : 1;
  if (arguments.positional.size() != expected) {
    return usageError(expected == 0 ? "list takes no argument"
                                    : commandName + " takes one argument",
                      command->name);
  }

  if (commandName == "check") return runCheck(arguments.positional[0]);

  RefPtr<WebWidgetEngineDelegate> engine =
      WidgetEngineDelegate::createInstance();
  if (commandName == "install")
    return runInstall(engine.get(), arguments.positional[0]);
  if (commandName == "list") return runList(engine.get());
  if (commandName == "info")
    return runInfo(engine.get(), arguments.positional[0], arguments.language);
  if (commandName == "map")
    return runMap(engine.get(), arguments.positional[0], arguments.language);
  if (commandName == "is-widget")
    return runIsWidget(engine.get(), arguments.positional[0]);
  return runRemove(engine.get(), arguments.positional[0]);
}
