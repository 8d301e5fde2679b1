// SPDX-License-Identifier: Apache-2.0
#include "tools/widgetctl/Commands.h"

#include <curl/curl.h>
#include <stdlib.h>
#include <string.h>
#include <widgetengine/WidgetEngineDelegate.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <cerrno>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "engine/ToolsFacade.h"
#include "tools/widgetctl/EngineLines.h"
#include "tools/widgetctl/ProgressLine.h"
#include "tools/widgetctl/Reply.h"
#include "tools/widgetctl/Signatures.h"

namespace widgetctl {

using nlohmann::json;

namespace {

int exitForStatus(int status) {
  return status == 3 || status == 4 || status == 11 ? kEnvironment : kNo;
}

json recordJson(const WidgetsData& w) {
  return json{{"name", w.getName()},
              {"title", w.getWidgetName()},
              {"shortTitle", w.getWidgetShorName()},
              {"description", w.getDescription()},
              {"version", w.getVersion()},
              {"width", w.getWidth()},
              {"height", w.getHeight()},
              {"author", w.getAuthor()},
              {"authorEmail", w.getAuthorEmail()},
              {"authorHref", w.getAuthorHref()},
              {"license", w.getLicense()},
              {"licenseHref", w.getLicenseHref()},
              {"icon", w.getIcon()},
              {"launchURL", w.getLaunchURL()},
              {"sourceURL", w.getSourceURL()},
              {"storagePath", w.getStoragePath()}};
}

// What the installation of the widget learnt of its signatures, when it
// looked at them (under a signature policy); null otherwise.
json signatureRecord(const std::string& name) {
  EngineString text(widgetengine_signature_info(name.c_str()));
  if (!text) return nullptr;
  json record = json::parse(text.get(), nullptr, false);
  if (!record.is_object() || !record.value("checked", false)) return nullptr;
  return record;
}

}  // namespace

bool registryUsable(std::string* reason) {
  std::vector<std::string> lines;
  bool open;
  {
    EngineLines capture(&lines);
    const toolsfacade::RegistryRows registry = toolsfacade::readRegistry();
    open = registry.read;
    if (registry.opened && !registry.read) lines.push_back(registry.error);
  }
  if (!open) {
    // Diagnostics of a failure, not progress: always on standard error.
    for (const std::string& line : lines) std::cerr << line << '\n';
    if (gJson) for (const std::string& line : lines) gDocument["engine"].push_back(line);
    *reason = "the registry " + toolsfacade::registryPath() +
              " cannot be used; check YRA_DATA_PATH (it must name a writable "
              "directory, ending with \"/\")";
  }
  return open;
}

std::string fileURL(const std::string& path, std::string* error) {
  std::unique_ptr<char, FreeDeleter> absolute(realpath(path.c_str(), nullptr));
  if (!absolute) {
    *error = "cannot read the package file " + path + ": " + strerror(errno);
    return std::string();
  }
  CURLU* url = curl_url();
  std::string result;
  if (url && curl_url_set(url, CURLUPART_SCHEME, "file", 0) == CURLUE_OK &&
      curl_url_set(url, CURLUPART_PATH, absolute.get(), CURLU_URLENCODE) ==
          CURLUE_OK) {
    char* text = nullptr;
    if (curl_url_get(url, CURLUPART_URL, &text, 0) == CURLUE_OK) result = text;
    curl_free(text);
  }
  curl_url_cleanup(url);
  if (result.empty()) *error = "cannot make a file:// address of " + path;
  return result;
}

bool isAddress(const std::string& text) {
  return text.find("://") != std::string::npos;
}

std::string installReason(int status, const std::string& url) {
  switch (status) {
    case 3:
      return "the registry or the widget root cannot be used; check "
             "YRA_DATA_PATH and WIDGET_PATH and their permissions";
    case 4:
      return "the registry lists this address twice; run \"widgetctl doctor\"";
    case 5:
      return "the package could not be downloaded from " + url +
             "; check the address";
    case 6:
      if (toolsfacade::lastRefusal().code == WIDGETENGINE_REFUSAL_SIGNATURE) {
        return "its signatures do not hold, and WIDGETENGINE_SIGNATURES=require "
               "refuses it; \"widgetctl check\" gives each signature's verdict";
      }
      return "the package is not a valid widget archive; \"widgetctl check\" "
             "says why";
    case 7:
      return "the package has no config.xml at its top; \"widgetctl check\" "
             "says more";
    case 8:
      return "config.xml was refused; \"widgetctl check\" gives the line and "
             "the reason";
    case 9:
      return "the package has no start page (index.html, or the file named by "
             "<content src>)";
    case 10:
      return "the widget could not be recorded";
    case 11:
      return "the downloaded package could not be removed from the widget "
             "root's tmp/ folder; check its permissions";
    default:
      return "the installation failed (status " + std::to_string(status) + ")";
  }
}

std::string refusalDetail(int status) {
  const toolsfacade::Refusal refusal = toolsfacade::lastRefusal();
  if (status == 10) {
    return refusal.statement.empty() ? std::string() : ": " + refusal.statement;
  }
  if ((status == 5 || status == 6) && refusal.code != WIDGETENGINE_REFUSAL_NONE) {
    return " (" + refusal.reason + ")";
  }
  return std::string();
}

int runInstall(const std::string& argument) {
  std::string url = argument;
  if (!isAddress(argument)) {
    std::string error;
    url = fileURL(argument, &error);
    if (url.empty()) return finish(kNo, error);
  }
  gDocument["url"] = url;
  std::vector<std::string> lines;
  toolsfacade::Installation installation;
  {
    EngineLines capture(&lines);
    ProgressLine progress(gProgress);
    installation = toolsfacade::install(url);
  }
  passOn(lines);
  const int status = installation.status;
  gDocument["status"] = status;
  if (status == 0 || status == 2) {
    gDocument["launchURL"] = installation.launchURL;
    gDocument["installedBefore"] = status == 2;
    if (!gJson) std::cout << installation.launchURL << std::endl;
    return finish(kOk);
  }
  gDocument["launchURL"] = nullptr;
  std::string reason = "could not install " + url + ": " + installReason(status, url);
  reason += refusalDetail(status);
  return finish(exitForStatus(status), reason);
}

int runList(WebWidgetEngineDelegate* engine) {
  std::vector<std::string> lines;
  std::vector<std::unique_ptr<WidgetsData>> widgets;
  {
    EngineLines capture(&lines);
    for (WidgetsData* widget : engine->getAll(nullptr)) widgets.emplace_back(widget);
  }
  passOn(lines);
  gDocument["widgets"] = json::array();
  for (const auto& widget : widgets) {
    if (gJson) {
      gDocument["widgets"].push_back(recordJson(*widget));
    } else {
      std::cout << widget->getName() << '\t' << widget->getVersion() << '\t'
                << widget->getLaunchURL() << '\n';
    }
  }
  return finish(kOk);
}

int runInfo(WebWidgetEngineDelegate* engine, const std::string& name,
            const std::string& language) {
  std::vector<std::string> lines;
  std::unique_ptr<WidgetsData> widget;
  {
    EngineLines capture(&lines);
    widget.reset(engine->getInfo(name.c_str(), nullptr, language.c_str()));
  }
  passOn(lines);
  gDocument["name"] = name;
  if (!widget) {
    return finish(kNo, "no widget called " + name +
                           " is installed (\"widgetctl list\" lists them)");
  }
  json signatures;
  {
    EngineLines capture(&lines);
    signatures = signatureRecord(name);
  }
  if (gJson) {
    gDocument["widget"] = recordJson(*widget);
    if (!signatures.is_null()) gDocument["signatures"] = signatures;
    return finish(kOk);
  }
  const json record = recordJson(*widget);
  const std::pair<const char*, const char*> shown[] = {
      {"name", "name"},
      {"title", "title"},
      {"short title", "shortTitle"},
      {"description", "description"},
      {"version", "version"},
      {"width", "width"},
      {"height", "height"},
      {"author", "author"},
      {"author email", "authorEmail"},
      {"author href", "authorHref"},
      {"license", "license"},
      {"license href", "licenseHref"},
      {"icon", "icon"},
      {"launch URL", "launchURL"},
      {"source URL", "sourceURL"},
      {"storage path", "storagePath"}};
  for (const auto& item : shown) {
    const json& value = record[item.second];
    std::cout << field(item.first, value.is_string() ? value.get<std::string>()
                                                     : value.dump())
              << '\n';
  }
  if (!signatures.is_null()) {
    const bool isSigned = signatures.value("signed", false);
    std::cout << field("signatures",
                       std::string(!isSigned                           ? "not signed"
                                   : signatures.value("valid", false) ? "valid"
                                                                      : "invalid") +
                           " (checked when installed, policy " +
                           signatures.value("policy", "") + ")")
              << '\n';
    if (isSigned) {
      for (const std::string& line : signatureLines(signatures))
        std::cout << "  " << line << '\n';
    }
  }
  return finish(kOk);
}

int runMap(WebWidgetEngineDelegate* engine, const std::string& url,
           const std::string& language) {
  std::vector<std::string> lines;
  EngineString mapped;
  {
    EngineLines capture(&lines);
    mapped.reset(engine->mapResource(url.c_str(), language.c_str()));
  }
  passOn(lines);
  gDocument["url"] = url;
  gDocument["language"] = language;
  gDocument["mapped"] = mapped ? json(mapped.get()) : json(nullptr);
  gDocument["answer"] = mapped ? mapped.get() : url;
  if (!gJson) std::cout << (mapped ? mapped.get() : url) << std::endl;
  return finish(kOk);
}

int runIsWidget(WebWidgetEngineDelegate* engine, const std::string& url) {
  std::vector<std::string> lines;
  int answer;
  {
    EngineLines capture(&lines);
    answer = engine->isWidget(url.c_str());
  }
  passOn(lines);
  gDocument["url"] = url;
  gDocument["widget"] = answer == 1;
  if (!gJson) std::cout << (answer == 1 ? "yes" : "no") << std::endl;
  if (answer == 1) return finish(kOk);
  return finish(kNo, url + " is not the launch URL of an installed widget");
}

int runRemove(WebWidgetEngineDelegate* engine, const std::string& name) {
  std::vector<std::string> lines;
  int status;
  {
    EngineLines capture(&lines);
    status = engine->deleteWidget(name.c_str(), nullptr);
  }
  passOn(lines);
  gDocument["name"] = name;
  gDocument["status"] = status;
  gDocument["removed"] = status == 1;
  if (status == 1) {
    if (!gJson) std::cout << "removed " << name << std::endl;
    return finish(kOk);
  }
  if (status == 0) {
    return finish(kNo, "no widget called " + name +
                           " is installed (\"widgetctl list\" lists them)");
  }
  const toolsfacade::Refusal refusal = toolsfacade::lastRefusal();
  std::string why = refusal.code != WIDGETENGINE_REFUSAL_NONE ? refusal.reason
                                                              : refusal.statement;
  if (refusal.directoryKept) {
    why = "its directory cannot be deleted; if its files are gone, "
          "\"widgetctl doctor --repair\" removes it";
  }
  return finish(kNo, "could not remove " + name + (why.empty() ? "" : ": " + why));
}

// --- doctor ----------------------------------------------------------------

int runDoctor(const Doctor::Options& options) {
  Doctor doctor(options);
  std::vector<DoctorProblem> problems;
  std::vector<std::string> lines;
  const bool ran = doctor.run(problems, lines);
  passOn(lines);
  if (!ran) return finish(kEnvironment, doctor.error());
  gDocument["problems"] = json::array();
  bool remaining = false;
  for (const DoctorProblem& p : problems) {
    remaining = remaining || !p.repaired;
    gDocument["problems"].push_back({{"kind", p.kind},
                                     {"name", p.name},
                                     {"path", p.path},
                                     {"detail", p.detail},
                                     {"repaired", p.repaired}});
    if (!gJson) {
      std::cout << p.kind << ": " << (p.name.empty() ? "" : p.name + " ")
                << p.path << (p.repaired ? " (repaired)" : "") << '\n'
                << "  " << p.detail << '\n';
    }
  }
  gDocument["healthy"] = problems.empty();
  if (!gJson) {
    std::cout << (problems.empty() ? "registry and disk agree"
                  : remaining      ? "problems found"
                                   : "everything found was repaired")
              << std::endl;
  }
  return finish(remaining ? kNo : kOk);
}

}  // namespace widgetctl
