// SPDX-License-Identifier: Apache-2.0
#include "install/WidgetInstaller.h"

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <random>
#include <vector>

#include <widgetengine/WidgetEngineExtensions.h>

#include "base/EngineOutput.h"
#include "base/Refusal.h"
#include "base/Settings.h"
#include "base/TrustedPath.h"
#include "config/PackageFiles.h"
#include "config/WidgetConfig.h"
#include "config/WidgetConfigParser.h"
#include "install/ContentType.h"
#include "install/Downloader.h"
#include "install/Extractor.h"
#include "install/InstallLock.h"
#include "install/SignatureCheck.h"
#include "signature/SignatureFiles.h"
#include "base/UrlPath.h"
#include "registry/LocalizedItemKeys.h"
#include "registry/SqlLite3.h"
#include "registry/WidgetsData.h"

namespace {

// Start pages tried, in this order, when config.xml names none that exists.
const char* const kDefaultStartFiles[] = {
    "index.htm", "index.html", "index.svg", "index.xhtml", "index.xht"};
// Icons every widget may carry without declaring them, in this order.
const char* const kDefaultIcons[] = {"icon.svg", "icon.ico", "icon.png",
                                     "icon.gif", "icon.jpg"};

// True when name, taken as a path relative to a widget's directory, has a
// ".." component and so could lead out of that directory, either as a file
// name or, once it is part of a file:// address, as the browser reads it.
bool leavesDirectory(const std::string& name) {
  size_t start = 0;
  while (start <= name.size()) {
    size_t end = name.find('/', start);
    if (end == std::string::npos) end = name.size();
    if (name.compare(start, end - start, "..") == 0) return true;
    start = end + 1;
  }
  return !UrlPath::staysInside(name);
}

// The reason of a run that ends with status 3 or 4 and has none of its own:
// the one hosts have always been given for those statuses.
Outcome unusableRegistry() {
  return Outcome(WIDGETENGINE_REFUSAL_REGISTRY,
                 "the widget registry cannot be used");
}

}  // namespace

class WidgetInstaller::Files final : public PackageFiles {
 public:
  explicit Files(WidgetInstaller* installer) : installer(installer) {}

  std::string getMimeTypeFromExtension(const std::string& fileName) override {
    return installer->getMimeTypeFromExtension(fileName);
  }
  std::string getMimeTypeFromContent(FILE* file) override {
    return installer->getMimeTypeFromContent(file);
  }
  FILE* openWidgetFile(const std::string& fileName) override {
    return installer->openWidgetFile(fileName);
  }
  bool widgetFileExists(const std::string& fileName) override {
    return installer->widgetFileExists(fileName);
  }

 private:
  WidgetInstaller* installer;
};

// The record's constructor that takes the installer lives here: config/
// knows only the PackageFiles interface, and this is where the installer
// hands it over.
WidgetConfig::WidgetConfig(WidgetInstaller* installer)
    : WidgetConfig(installer->getPackageFiles()) {
  this->installer = installer;
}

WidgetInstaller::WidgetInstaller(const std::string& sourceURL)
    : sourceURL(sourceURL), basePath(getWidgetBasePath()), installed(false) {
  buildStoragePath(sourceURL);
  packageFiles.reset(new Files(this));
  config.reset(new WidgetConfig(this));
  database.reset(new SqlLite3());
}

WidgetInstaller::~WidgetInstaller() {
  clean();
  config.reset();
  database.reset();
}

std::string WidgetInstaller::getWidgetBasePath() {
  const std::optional<std::string> chosen = settings::widgetPath();
  const std::string path = chosen.value_or(settings::kBuiltInWidgetRoot);
  // An existing directory is the normal case; the result is not needed.
  // The built-in root sits at a fixed name that any local user could take
  // first (under /tmp, say): it is made private to its user, and the
  // installation refuses one that someone else made (see InstallLock).
  // It is made from a descriptor of the folder that holds it, reached
  // without following anyone else's link, and mkdirat() does not follow a
  // link standing at the name itself: whatever stands there is left for
  // the checks of whoever uses the root.
  std::string last;
  std::string untrusted;
  const int parentFd = TrustedPath::walkToParent(path, &last, &untrusted);
  if (parentFd >= 0) {
    mkdirat(parentFd, last.c_str(), chosen ? 0755 : 0700);
    close(parentFd);
  }
  return path;
}

void WidgetInstaller::buildStoragePath(const std::string& url) {
  name = nameFromURL(url);
  storagePath = basePath + "widget_" + name + "/";
}

std::string WidgetInstaller::nameFromURL(const std::string& url) {
  const size_t slash = url.rfind('/');
  const size_t dot = url.rfind('.');
  const size_t start = slash == std::string::npos ? 0 : slash + 1;
  // Unsigned on purpose: without a dot after the last slash the length wraps
  // and the name runs to the end of the URL.
  const size_t length = dot - slash - 1;
  std::string name = url.substr(start, length);

  const long underscore = static_cast<long>(name.rfind('_'));
  if (underscore > 0) name[underscore] = '-';
  return name;
}

bool WidgetInstaller::usableName(const std::string& name, std::string* why) {
  if (name.empty() || name == "." || name == "..") {
    *why = "the address gives the widget no usable name (\"" + name + "\")";
    return false;
  }
  for (const char c : name) {
    const unsigned char byte = static_cast<unsigned char>(c);
    // A "?" or "#" would end the launch URL's path and a "%" start an
    // escape, so the browser would open another file than the one installed.
    if (c == '?' || c == '#' || c == '%' || byte < 0x20 || byte == 0x7f) {
      *why = "the widget name taken from the address holds a character that a "
             "file:// address cannot carry as it is";
      return false;
    }
  }
  return true;
}

std::string WidgetInstaller::downloadFolder() {
  return settings::widgetPath().value_or("") + P_tmpdir "/";
}

std::string WidgetInstaller::getLaunchURL() { return launchURL; }

std::string WidgetInstaller::getMimeTypeFromExtension(
    const std::string& fileName) {
  return ContentType::fromExtension(fileName);
}

std::string WidgetInstaller::getMimeTypeFromContent(FILE* file) {
  return ContentType::fromContent(file);
}

FILE* WidgetInstaller::openWidgetFile(const std::string& fileName) {
  if (leavesDirectory(fileName)) return nullptr;
  const std::string& folder = unpackPath.empty() ? storagePath : unpackPath;
  return fopen((folder + fileName).c_str(), "r");
}

PackageFiles* WidgetInstaller::getPackageFiles() const {
  return packageFiles.get();
}

bool WidgetInstaller::widgetFileExists(const std::string& fileName) {
  FILE* file = openWidgetFile(fileName);
  if (!file) return false;
  fclose(file);
  return true;
}

std::string WidgetInstaller::buildDownloadPath() {
  const std::string folder = downloadFolder();
  static const char kLetters[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  std::random_device random;
  std::string path;
  // The downloader creates the file exclusively, so a name taken in between
  // only fails that download; skipping names already taken makes that rare.
  for (int attempt = 0; attempt < 100; ++attempt) {
    path = folder + "file";
    for (int i = 0; i < 6; ++i)
      path += kLetters[random() % (sizeof(kLetters) - 1)];
    struct stat info;
    if (lstat(path.c_str(), &info) != 0 && errno == ENOENT) break;
  }
  return path;
}

int WidgetInstaller::abandonParsed(int status) {
  parser.reset();
  extractor.reset();
  downloader.reset();
  launchURL = "about:blank";
  return status;
}

int WidgetInstaller::refuse(int status, Outcome why, const std::string& line) {
  engineError() << line << std::endl;
  refusal::state(line);
  outcome_ = std::move(why);
  launchURL = "about:blank";
  return status;
}

int WidgetInstaller::refuseUnreadRegistry() {
  const std::string error = database->lastError();
  return refuse(3,
                Outcome(WIDGETENGINE_REFUSAL_REGISTRY,
                        "cannot read the widget registry: " + error),
                "Cannot read the widget registry: " + error);
}

int WidgetInstaller::run() {
  outcome_ = Outcome();
  noticed_ = Outcome();
  const int status = attempt();
  outcome_ = refusal::settle(outcomeOf(status));
  return status;
}

Outcome WidgetInstaller::outcomeOf(int status) const {
  if (status == 0 || status == 2) return Outcome();
  if (!noticed_.ok()) return noticed_;
  if (!outcome_.ok()) return outcome_;
  // A step that gives no reason of its own.
  return Outcome(WIDGETENGINE_REFUSAL_INTERNAL,
                 "the installation failed (status " + std::to_string(status) +
                     ")");
}

bool WidgetInstaller::downloadFolderTrusted(std::string* untrusted) {
  if (!settings::widgetPath()) return true;
  std::string folder = downloadFolder();
  for (size_t twice; (twice = folder.find("//")) != std::string::npos;)
    folder.erase(twice, 1);
  const int fd = TrustedPath::openDirectory(folder, untrusted);
  if (fd >= 0) {
    close(fd);
    return true;
  }
  return errno != EPERM;
}

int WidgetInstaller::attempt() {
  if (installed) {
    engineError() << "WidgetInstaller cannot be run twice" << std::endl;
    return 1;
  }
  if (!database->isOpen()) {
    outcome_ = Outcome(WIDGETENGINE_REFUSAL_REGISTRY,
                       "the widget registry cannot be opened");
    launchURL = "about:blank";
    return 3;
  }
  // A name the launch URL cannot carry is refused before anything is
  // fetched or made. The address is what is wrong, as with an address the
  // downloader refuses, so the status is the one of a failed download.
  std::string why;
  if (!usableName(name, &why)) {
    engineError() << "Cannot install " << sourceURL << ": " << why << std::endl;
    return refuse(5, Outcome(WIDGETENGINE_REFUSAL_ADDRESS, why),
                  "Error while downloading");
  }
  // The name, and with it the widget's directory, belongs to this run from
  // the first look at the registry to the commit: the registry's own write
  // lock cannot serve, as unpacking into the directory comes long before the
  // rows are written, and holding the registry that long would stall every
  // lookup of the browser. Every run that ends, ends with what it created
  // either registered or removed, so its journal is emptied.
  lock.reset(new InstallLock(basePath, name));
  if (!lock->acquire()) {
    const std::string reason = lock->error();
    lock.reset();
    return refuse(3, Outcome(WIDGETENGINE_REFUSAL_BUSY, reason),
                  "Cannot install " + sourceURL + ": " + reason);
  }
  const int status = runHoldingName();
  // A journal a dead run left and that could not be settled yet (an
  // update's, whose folders may stand exchanged) stays for the next call,
  // unless this run wrote its own over it.
  if (journalSettled_ || journalWritten_) lock->clear();
  lock.reset();
  return status;
}

int WidgetInstaller::runHoldingName() {
  journalSettled_ = lock->removeLeftovers(*database);
  InstallLock::sweep(basePath, *database);

  {
    bool read = false;
    std::vector<std::unique_ptr<WidgetsData>> rows;
    for (WidgetsData* row : database->selectWidgetsBySourceURL(sourceURL, &read))
      rows.emplace_back(row);
    // A registry that cannot be read says nothing about what is installed:
    // going on would unpack over a widget that may well be there.
    if (!read) return refuseUnreadRegistry();
    if (rows.size() == 1) {
      engineOut() << "Widget already installed. Launch it with this url : "
                << rows[0]->getLaunchURL() << std::endl;
      launchURL = rows[0]->getLaunchURL();
      return 2;
    }
    if (rows.size() > 1) {
      engineError()
          << "It's not possible to see this log. Database integrity problem"
          << std::endl;
      return refuse(4, unusableRegistry(),
                    "'sourceURL' Field in 'Widgets' Table must be unique");
    }
  }

  // Another widget, installed from another address whose last segment gives
  // the same name, already lives in this directory (under this spelling of
  // the root or another). Unpacking would wipe its files before the
  // registration failed on the taken name and directory, so this
  // installation ends as that registration would, before anything is
  // fetched or touched.
  {
    bool read = false;
    std::unique_ptr<WidgetsData> owner =
        InstallLock::ownerOf(storagePath, *database, &read);
    if (read && !owner) {
      std::vector<WidgetsData*> named = database->selectWidgetsByName(name);
      if (!named.empty()) owner.reset(named[0]);
      for (size_t i = 1; i < named.size(); ++i) delete named[i];
    }
    if (!read) return refuseUnreadRegistry();
    if (owner) {
      const std::string taken = " is taken by the widget installed from " +
                                owner->getSourceURL();
      return refuse(10,
                    Outcome(WIDGETENGINE_REFUSAL_NAME_TAKEN,
                            "the name " + name + taken),
                    "The widget name " + name + taken +
                        "; remove that widget first");
    }
  }

  std::unique_ptr<WidgetsData> record(new WidgetsData());
  record->setSourceURL(sourceURL);
  record->setName(name);

  // Under a root of its own the package waits in the root's tmp/ between
  // download and unpacking: whoever else could write there, or made it a
  // link, could read it or swap it. The shared system folder is used as it
  // is, its files made exclusively and nobody else's to replace. A folder
  // that is missing fails the download, as it always has.
  std::string untrusted;
  if (!downloadFolderTrusted(&untrusted)) {
    return refuse(3, unusableRegistry(),
                  "Cannot install " + sourceURL +
                      ": the download folder is not safe: " + untrusted);
  }

  const std::string downloadPath = buildDownloadPath();
  journalWritten_ = lock->note(downloadPath, storagePath);
  if (!journalWritten_) {
    return refuse(3, unusableRegistry(),
                  "Cannot install " + sourceURL +
                      ": cannot write the installation journal in " +
                      lock->root());
  }

  const int status = unpackPackage(downloadPath, storagePath, record.get());
  if (status != 0) {
    record.reset();
    return status;
  }

  // The write lock is taken before the id is: the rows a removed widget
  // left under the id this widget is about to get are cleared in the same
  // transaction.
  bool registered = database->beginWriteJob() &&
                    database->forgetRowsOfRemovedWidgets();
  const int widgetId = registered ? database->insertWidget(record.get()) : -1;
  if (widgetId <= 0) {
    outcome_ = Outcome(WIDGETENGINE_REFUSAL_REGISTRY,
                       "cannot write to the widget registry: " +
                           database->lastError());
    if (widgetId < 0 && !registered) {
      const std::string line =
          "Cannot write to the widget registry: " + database->lastError();
      engineError() << line << std::endl;
      refusal::state(line);
    }
    database->rollbackJob();
    record.reset();
    return abandonParsed(10);
  }
  writeLocalizedItems(*database, widgetId);
  // What the signature check found is kept with the rows, or nothing is.
  if (signatures_->active() &&
      !database->writeSignatures(widgetId, signatures_->row())) {
    outcome_ = Outcome(WIDGETENGINE_REFUSAL_REGISTRY,
                       "cannot record the widget's signatures: " +
                           database->lastError());
    engineError() << "Cannot record the widget's signatures in the registry: "
                  << database->lastError() << std::endl;
    database->rollbackJob();
    record.reset();
    return abandonParsed(10);
  }
  // Nothing is installed until its rows are committed: a commit that fails
  // (a full disk, an I/O error) takes the unpacked files with it.
  if (!database->endJob()) {
    outcome_ = Outcome(WIDGETENGINE_REFUSAL_REGISTRY,
                       "cannot commit the widget to the registry: " +
                           database->lastError());
    const std::string line =
        "Cannot commit the widget to the registry: " + database->lastError();
    engineError() << line << std::endl;
    refusal::state(line);
    record.reset();
    return abandonParsed(10);
  }

  extractor->setKeepFiles(true);
  installed = true;
  parser.reset();
  extractor.reset();
  downloader.reset();
  record.reset();
  return 0;
}

int WidgetInstaller::unpackPackage(const std::string& downloadPath,
                                   const std::string& folder,
                                   WidgetsData* record) {
  unpackPath = folder;
  engineOut() << "[Downloading...]" << std::endl << std::endl;
  downloader.reset(new Downloader(sourceURL, downloadPath));
  downloader->resumeCutTransfers(resumeAttempts_);
  const bool downloaded = downloader->download() == 0;
  // Kept even when the body was stored: it is why the package is refused.
  if (downloaded) noticed_ = downloader->outcome();
  if (!downloaded) {
    const int status = refuse(5, downloader->outcome(), "Error while downloading");
    downloader.reset();
    return status;
  }

  engineOut() << std::endl << "[Extracting...]" << std::endl << std::endl;
  // An update's folder was made for it, empty and exclusively, a moment ago.
  extractor.reset(new Extractor(downloadPath, unpackPath,
                                keepUnpacked_ ? Extractor::kFreshFolder
                                              : Extractor::kWipeTarget));
  if (keepUnpacked_) extractor->setKeepFiles(true);
  files.clear();
  // Under a signature policy the package is judged on the bytes as they were
  // written (the unpacking digests each file on its way out), before
  // anything of it, config.xml first, is trusted. A package the policy
  // refuses goes as one that could not be unpacked.
  signatures_.reset(new SignatureCheck());
  if (checkSignatures_) signatures_->atLeastReport();
  extractor->setDigests(signatures_->written());
  if (signatures_->active()) {
    // The signature documents are written first, and what of them needs
    // no other file is checked while the rest is being written.
    SignatureCheck* check = signatures_.get();
    const std::string folder = unpackPath;
    extractor->setFirst(FirstEntries{
        [](const std::string& name) {
          return SignatureFiles::kindOf(name) != SignatureFiles::kNone;
        },
        [check, folder](const std::vector<std::string>& names) {
          check->prepare(folder, names);
        }});
  }
  std::optional<Outcome> unpackRefusal;
  if (extractor->extract(files) == -1) {
    unpackRefusal = extractor->outcome();
  } else if (signatures_->active()) {
    Outcome judged = signatures_->check(unpackPath);
    if (!judged.ok()) {
      engineError() << "Cannot install " << sourceURL
                    << ": its signatures do not hold: " << judged.reason()
                    << std::endl;
      unpackRefusal = std::move(judged);
    }
  }
  if (unpackRefusal) {
    const int status = refuse(6, std::move(*unpackRefusal), "Error while extracting");
    extractor.reset();
    downloader.reset();
    return status;
  }

  record->setFiles(files);

  engineOut() << std::endl
            << "[Remove downloaded file...]" << std::endl
            << std::endl;
  if (remove(downloadPath.c_str()) != 0) {
    // The launch URL is deliberately left as it was here.
    engineError() << "Error while removing" << std::endl;
    downloader.reset();
    extractor.reset();
    return 11;
  }

  engineOut() << std::endl << "[Parsing config.xml...]" << std::endl << std::endl;
  const std::string configPath = unpackPath + "config.xml";
  FILE* configFile = fopen(configPath.c_str(), "r");
  if (!configFile) {
    outcome_ = Outcome(WIDGETENGINE_REFUSAL_NO_CONFIG,
                       "the package has no config.xml");
    engineError() << "Could not find config.xml" << std::endl;
    extractor.reset();
    downloader.reset();
    launchURL = "about:blank";
    return 7;
  }
  fclose(configFile);

  config->setConfigPath(configPath);
  parser.reset(new WidgetConfigParser(configPath, config.get()));
  if (parser->parse() == -1) {
    outcome_ = parser->outcome();
    engineError() << "Error while parsing" << std::endl;
    return abandonParsed(8);
  }

  // A content element is only recorded once its file was found, so without
  // one the default names are tried; the trial records the one accepted.
  if (!config->getStartFile()) {
    for (const char* candidate : kDefaultStartFiles) {
      if (config->trySniffedStartFile(candidate) == 1) break;
    }
  }
  if (!config->getStartFile()) {
    outcome_ = Outcome(WIDGETENGINE_REFUSAL_NO_START_FILE,
                       "no start file: config.xml names none and no index.htm, "
                       "index.html, index.svg, index.xhtml or index.xht is there");
    engineError() << "No start file found" << std::endl;
    return abandonParsed(9);
  }

  launchURL = "file://" + storagePath + *config->getStartFile();
  engineOut() << std::endl << "Path: " << launchURL << std::endl << std::endl;

  record->setLaunchURL(launchURL);
  record->setStoragePath(storagePath);
  // Declared icons were offered while parsing and so come first; every
  // default name is offered too, the record refusing duplicates and files
  // that are missing or not what their name says.
  for (const char* icon : kDefaultIcons) config->addIcon(WidgetIconInfo(icon));
  // A source of unknown type is listed without being opened; one that climbs
  // out of the widget's directory would give the browser an address outside
  // it, so it counts as refused and the next entry becomes the icon.
  for (const WidgetIconInfo& icon : config->getIcons()) {
    if (leavesDirectory(icon.getSrc())) continue;
    record->setIcon("file://" + storagePath + icon.getSrc());
    break;
  }
  if (config->getAuthor()) record->setAuthor(*config->getAuthor());
  if (config->getAuthorEmail())
    record->setAuthorEmail(*config->getAuthorEmail());
  if (config->getAuthorHref()) record->setAuthorHref(*config->getAuthorHref());
  // Only the texts given without a language go into the row; every
  // language, that one included, goes to the localized items below.
  const WidgetConfig::LocalizedMap& names = config->getNames();
  auto text = names.find(localizeditems::kDefaultLanguage);
  if (text != names.end()) record->setWidgetName(text->second);
  const WidgetConfig::LocalizedMap& shortNames = config->getShortNames();
  text = shortNames.find(localizeditems::kDefaultLanguage);
  if (text != shortNames.end()) record->setWidgetShorName(text->second);
  if (config->getHeight()) record->setHeight(*config->getHeight());
  if (config->getWidth()) record->setWidth(*config->getWidth());
  if (config->getVersion()) record->setVersion(*config->getVersion());
  return 0;
}

void WidgetInstaller::writeLocalizedItems(SqlLite3& registry, int widgetId) const {
  registry.insertLocalizedItems(widgetId, localizeditems::kName,
                                config->getNames());
  registry.insertLocalizedItems(widgetId, localizeditems::kShortName,
                                config->getShortNames());
  registry.insertLocalizedItems(widgetId, localizeditems::kDescription,
                                config->getDescriptions());
  registry.insertLocalizedItems(widgetId, localizeditems::kLicense,
                                config->getLicenses());
  registry.insertLocalizedItems(widgetId, localizeditems::kLicenseHref,
                                config->getLicenseHrefs());
}

void WidgetInstaller::clean() {
  if (installed) {
    engineOut() << std::endl << "[Cleaning...]" << std::endl << std::endl;
    parser.reset();
    extractor.reset();
    downloader.reset();
    installed = false;
  } else {
    engineOut() << "Nothing to clean" << std::endl;
  }
}
