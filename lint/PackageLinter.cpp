// SPDX-License-Identifier: Apache-2.0
#include "lint/PackageLinter.h"

#include <curl/curl.h>
#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlstring.h>
#include <libxml/xmlerror.h>
#include <zip.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>
#include <set>

#include "config/SchemaValidator.h"
#include "config/WidgetConfigParser.h"
#include "config/XmlText.h"
#include "install/ContentType.h"
#include "install/Extractor.h"
#include "install/WidgetInstaller.h"
#include "lint/EntryReader.h"

namespace {

const std::vector<LintTag> kTags = {
    {"not-a-zip-archive", "error",
     "The file is not a zip archive; often an HTML error page was downloaded "
     "instead of the package."},
    {"archive-unreadable", "error",
     "The zip archive is damaged and its list of entries cannot be read."},
    {"archive-inconsistent", "error",
     "The archive's local headers disagree with its central directory, and "
     "the package is refused."},
    {"archive-empty", "error",
     "The archive holds no file (nothing, or folders only), and the package "
     "is refused."},
    {"entry-crc-mismatch", "error",
     "The entry's data does not match its recorded checksum: the file is "
     "damaged, and the package is refused (unzip -t and bsdtar fail it too)."},
    {"entry-unreadable", "error",
     "The entry's data cannot be read (damaged or unsupported compression), "
     "and the package is refused."},
    {"entry-encrypted", "error",
     "The entry is encrypted; widget packages cannot carry encrypted files."},
    {"entry-name-leaves-folder", "error",
     "The entry name has a \"..\" component, and the package is refused "
     "before anything is written."},
    {"entry-name-refused", "error",
     "The entry name has a byte outside printable ASCII or one of "
     "!\"*:<>?\\^`{|}, and the package is refused."},
    {"duplicate-entry", "warning",
     "Two entries have the same name; the later one overwrites the first."},
    {"entry-not-verified", "info",
     "The entry is too large for its checksum to be checked here."},
    {"config-missing", "error",
     "The package has no config.xml at its top level, and is refused."},
    {"config-in-subfolder", "error",
     "config.xml is inside a top folder: zip the folder's contents, not the "
     "folder."},
    {"config-too-large", "warning",
     "config.xml is larger than 1 MB, so it is not checked here."},
    {"config-not-well-formed", "error",
     "config.xml is not well-formed XML, and the package is refused."},
    {"schema-unavailable", "error",
     "The schema that config.xml is validated against cannot be loaded."},
    {"schema-invalid", "error",
     "config.xml does not follow the widget configuration schema, and the "
     "package is refused."},
    {"dimension-not-a-number", "warning",
     "A width or height is not a number; it is recorded as 0 (unset)."},
    {"required-feature-unknown", "warning",
     "The widget requires a feature the engine does not provide; mark it "
     "required=\"false\" if the widget can do without it."},
    {"content-src-missing", "warning",
     "The start page named by <content src> is not in the package; the "
     "default start page is used instead."},
    {"content-type-unknown", "warning",
     "The start page named by <content src> has no type attribute and an "
     "extension of no known type, so it is not used."},
    {"start-file-missing", "error",
     "The package has no usable start page (neither <content src> nor an "
     "index file), and is refused."},
    {"declared-icon-missing", "warning",
     "An icon named in config.xml is not in the package; it is left out."},
    {"icon-content-mismatch", "warning",
     "The icon's content is not of the type its extension names; it is left "
     "out."},
    {"localized-copy-without-default", "warning",
     "A file under locales/<lang>/ has no copy at the top level, so readers "
     "of other languages get nothing."},
    {"name-needs-escaping", "warning",
     "The widget name taken from the package address has characters that a "
     "URL must escape, so the launch URL shows %-escapes."},
};

const LintTag* findTag(const char* tag) {
  for (const LintTag& known : kTags) {
    if (strcmp(known.tag, tag) == 0) return &known;
  }
  return nullptr;
}

// Start pages the installer tries when config.xml names none that exists.
const char* const kDefaultStartFiles[] = {
    "index.htm", "index.html", "index.svg", "index.xhtml", "index.xht"};

// Names are shown as they are, except bytes that would garble a terminal
// line, and very long ones are cut.
std::string printable(const std::string& name) {
  static const size_t kLongest = 200;
  // Names come from zip entries and XML attributes: C strings, never holding
  // a NUL, as xmlCheckUTF8 wants.
  const bool utf8 = xmlCheckUTF8(BAD_CAST name.c_str()) != 0;
  std::string shown;
  for (size_t i = 0; i < name.size() && i < kLongest; ++i) {
    const unsigned char c = static_cast<unsigned char>(name[i]);
    if (c < 0x20 || c == 0x7F || (c >= 0x80 && !utf8)) {
      char hex[5];
      snprintf(hex, sizeof hex, "\\x%02X", c);
      shown += hex;
    } else {
      shown += static_cast<char>(c);
    }
  }
  if (name.size() > kLongest)
    shown += "... (" + std::to_string(name.size()) + " bytes)";
  return shown;
}

// What a file that is not a zip archive seems to be, from its first bytes.
std::string describeNonZip(const std::string& head, uint64_t size) {
  if (size == 0) return "the file is empty";
  size_t i = 0;
  while (i < head.size() && isspace(static_cast<unsigned char>(head[i]))) ++i;
  if (i < head.size() && head[i] == '<') {
    std::string lower;
    for (size_t k = i; k < head.size() && k < i + 64; ++k)
      lower += static_cast<char>(tolower(static_cast<unsigned char>(head[k])));
    if (lower.find("html") != std::string::npos)
      return "the file is an HTML document";
    return "the file is an XML or HTML document";
  }
  std::string bytes = "the file starts with bytes";
  for (size_t k = 0; k < head.size() && k < 4; ++k) {
    char hex[4];
    snprintf(hex, sizeof hex, " %02X", static_cast<unsigned char>(head[k]));
    bytes += hex;
  }
  return bytes;
}

// libxml2's messages, collected with their line instead of printed.
struct XmlMessages {
  std::vector<std::string> lines;
  static void collect(void* user, const xmlError* error) {
    XmlMessages* self = static_cast<XmlMessages*>(user);
    // A hostile document can make thousands; the first ones say enough.
    if (!error || self->lines.size() >= 50) return;
    std::string message = error->message ? error->message : "unknown error";
    while (!message.empty() &&
           isspace(static_cast<unsigned char>(message.back())))
      message.pop_back();
    self->lines.push_back("config.xml:" + std::to_string(error->line) + ": " +
                          message);
  }
};

void collectXmlError(void* user, xmlErrorPtr error) {
  XmlMessages::collect(user, error);
}

using xmltext::getRawAttribute;
using xmltext::hasAttribute;
using xmltext::isElement;

// A dimension the installer reads as a number: digits, white space allowed.
bool looksNumeric(const std::string& text) {
  bool digit = false;
  for (char c : text) {
    if (c >= '0' && c <= '9')
      digit = true;
    else if (!isspace(static_cast<unsigned char>(c)))
      return false;
  }
  return digit;
}

}  // namespace

PackageLinter::PackageLinter(const std::string& packagePath,
                             const std::string& sourceURL,
                             const std::string& schemaPath)
    : packagePath_(packagePath), sourceURL_(sourceURL), schemaPath_(schemaPath) {}

const std::vector<LintTag>& PackageLinter::tags() { return kTags; }

std::string PackageLinter::defaultSchemaPath() {
  return WidgetConfigParser::kSchemaPath;
}

void PackageLinter::add(const char* tag, const std::string& detail) {
  const LintTag* known = findTag(tag);
  findings_.push_back(
      {known->level, known->tag, detail, known->explanation});
}

bool PackageLinter::hasFile(const std::string& name) const {
  return byName_.count(name) != 0;
}

std::vector<LintFinding> PackageLinter::run() {
  findings_.clear();
  entries_.clear();
  byName_.clear();
  declared_.clear();
  configFound_ = false;
  configWalked_ = false;

  if (readArchive()) lintAgainstArchive();

  // The widget name comes from the address alone, archive or not.
  const std::string name = WidgetInstaller::nameFromURL(sourceURL_);
  if (CURL* curl = curl_easy_init()) {
    char* escaped =
        curl_easy_escape(curl, name.data(), static_cast<int>(name.size()));
    if (escaped && name != escaped) add("name-needs-escaping", printable(name));
    curl_free(escaped);
    curl_easy_cleanup(curl);
  }
  return findings_;
}


bool PackageLinter::readArchive() {
  MappedFile file(packagePath_);
  if (!file.opened()) {
    add("not-a-zip-archive", "the file cannot be read");
    return false;
  }
  int error = 0;
  // The installer opens packages with libzip's consistency check; one that
  // fails it is still read here, for whatever else there is to say.
  std::unique_ptr<zip_t, ZipClose> archive(
      file.openArchive(&error, ZIP_RDONLY | ZIP_CHECKCONS));
  const bool inconsistent = !archive && error == ZIP_ER_INCONS;
  if (!archive) archive.reset(file.openArchive(&error));
  if (archive && inconsistent)
    add("archive-inconsistent", printable(packagePath_));
  if (!archive) {
    const std::string head(file.data() ? file.data() : "",
                           std::min<size_t>(file.size(), 64));
    if (error == ZIP_ER_NOZIP || error == ZIP_ER_INCONS || file.size() == 0) {
      if (head.compare(0, 2, "PK") == 0)
        add("archive-unreadable", printable(packagePath_));
      else
        add("not-a-zip-archive", describeNonZip(head, file.size()));
    } else {
      zip_error_t reason;
      zip_error_init_with_code(&reason, error);
      add("archive-unreadable", zip_error_strerror(&reason));
      zip_error_fini(&reason);
    }
    return false;
  }

  // First the directory, in archive order; then the data of every entry;
  // then the findings, in archive order again.
  struct Listed {
    std::string name;
    bool stated;
    bool duplicate;
    bool encrypted;
    uint64_t size;
    int job;  // index into jobs, or -1
  };
  const zip_int64_t count = zip_get_num_entries(archive.get(), 0);
  std::vector<Listed> listed;
  std::vector<ReadJob> jobs;
  std::set<std::string> seen;
  for (zip_int64_t index = 0; index < count; ++index) {
    zip_stat_t stat;
    Listed item{"entry " + std::to_string(index), false, false, false, 0, -1};
    if (zip_stat_index(archive.get(), index, ZIP_FL_ENC_RAW, &stat) == 0 &&
        (stat.valid & ZIP_STAT_NAME)) {
      item.name = stat.name;
      item.stated = true;
      item.size = stat.size;
      item.duplicate = !seen.insert(item.name).second;
      item.encrypted = (stat.valid & ZIP_STAT_ENCRYPTION_METHOD) &&
                       stat.encryption_method != ZIP_EM_NONE;
      const bool folder = !item.name.empty() && item.name.back() == '/';
      if (!item.duplicate && !item.encrypted && !folder) {
        const bool isConfig = item.name == "config.xml";
        ReadJob job;
        job.index = index;
        job.size = stat.size;
        job.whole = stat.size <= (isConfig ? kLargestConfig : kLargestCheckedEntry);
        job.keep = isConfig && job.whole;
        item.job = static_cast<int>(jobs.size());
        jobs.push_back(std::move(job));
      }
    }
    listed.push_back(std::move(item));
  }
  readAll(file, archive.get(), jobs);
  if (jobs.empty()) add("archive-empty", printable(packagePath_));

  std::string configText;
  for (Listed& item : listed) {
    const std::string shown = printable(item.name);
    if (!item.stated) {
      add("entry-unreadable", item.name);
      continue;
    }
    if (!Extractor::isAcceptedName(item.name)) {
      const bool climbs =
          ("/" + item.name + "/").find("/../") != std::string::npos;
      add(climbs ? "entry-name-leaves-folder" : "entry-name-refused", shown);
    }
    if (item.duplicate) {
      add("duplicate-entry", shown);
      continue;
    }
    if (item.encrypted) add("entry-encrypted", shown);
    Entry entry{item.name, item.size, std::string()};
    if (item.job >= 0) {
      ReadJob& job = jobs[item.job];
      const bool isConfig = item.name == "config.xml";
      if (!job.whole && !isConfig)
        add("entry-not-verified",
            shown + " (" + std::to_string(item.size) + " bytes)");
      if (job.error == ZIP_ER_CRC)
        add("entry-crc-mismatch", shown);
      else if (job.error != ZIP_ER_OK)
        add("entry-unreadable", shown + ": " + job.message);
      entry.head.swap(job.head);
      if (isConfig) configText.swap(job.text);
    }
    if (item.name == "config.xml") {
      configFound_ = true;
      if (item.size > kLargestConfig)
        add("config-too-large",
            "config.xml (" + std::to_string(item.size) + " bytes)");
    }
    byName_[item.name] = entries_.size();
    entries_.push_back(std::move(entry));
  }

  if (!configFound_) {
    // A single top folder holding config.xml is the usual mistake.
    std::string inFolder;
    for (const Entry& entry : entries_) {
      const size_t slash = entry.name.find('/');
      if (slash != std::string::npos &&
          entry.name.compare(slash + 1, std::string::npos, "config.xml") == 0) {
        inFolder = entry.name;
        break;
      }
    }
    if (!inFolder.empty())
      add("config-in-subfolder", printable(inFolder));
    else
      add("config-missing", printable(packagePath_));
  } else if (entries_[byName_["config.xml"]].size <= kLargestConfig) {
    lintConfig(configText);
  }
  return true;
}

void PackageLinter::lintConfig(const std::string& text) {
  XmlMessages messages;
  xmltext::DocPtr doc;
  {
    xmltext::ErrorRoute route(collectXmlError, &messages);
    // As the engine reads it: no network, no DTD loading; entity references
    // stay references, so nothing expands without bound.
    doc.reset(xmlReadMemory(text.data(), static_cast<int>(text.size()),
                            "config.xml", nullptr, XML_PARSE_NONET));
  }
  if (!doc) {
    if (messages.lines.empty())
      messages.lines.push_back("config.xml:0: not parsed");
    for (const std::string& line : messages.lines)
      add("config-not-well-formed", line);
    return;
  }
  xmlNode* root = xmlDocGetRootElement(doc.get());
  if (!root) {
    add("config-not-well-formed", "config.xml:0: no root element");
    return;
  }
  const bool small = !WidgetConfigParser::isTooLargeToValidate(root);

  // Validation with libxml2's own line and message for every complaint.
  {
    XmlMessages schemaMessages;
    xmltext::ErrorRoute route(collectXmlError, &schemaMessages);
    SchemaValidator validator(schemaPath_);
    if (!validator.loaded()) {
      add("schema-unavailable", schemaPath_);
    } else if (!small) {
      add("schema-invalid",
          "config.xml:" + std::to_string(xmlGetLineNo(root)) +
              ": more elements or attributes than any real document; "
              "refused without validation");
    } else if (validator.prepare()) {
      XmlMessages validity;
      const int valid =
          validator.validate(doc.get(), collectXmlError, &validity);
      for (const std::string& line : validity.lines)
        add("schema-invalid", line);
      if (valid != 0 && validity.lines.empty())
        add("schema-invalid", "config.xml:1: invalid");
    }
  }
  if (!small || !isElement(root, "widget")) return;

  configWalked_ = true;
  const auto where = [](xmlNode* element) {
    return " (config.xml:" + std::to_string(xmlGetLineNo(element)) + ")";
  };
  const auto checkDimensions = [&](xmlNode* element) {
    for (const char* name : {"width", "height"}) {
      if (!hasAttribute(element, name)) continue;
      const std::string value = getRawAttribute(element, name);
      // The installer reads leading digits and ignores the rest; a value that
      // is not a number at all ends up as 0.
      if (!looksNumeric(value) && WidgetConfigParser::toNumber(value) <= 0)
        add("dimension-not-a-number",
            std::string(name) + "=\"" + printable(value) + "\"" +
                where(element));
    }
  };
  checkDimensions(root);
  for (xmlNode* child = root->children; child; child = child->next) {
    if (isElement(child, "icon")) {
      checkDimensions(child);
      if (hasAttribute(child, "src"))
        declared_.push_back({"icon", getRawAttribute(child, "src"), false,
                             static_cast<int>(xmlGetLineNo(child))});
    } else if (isElement(child, "content")) {
      if (hasAttribute(child, "src"))
        declared_.push_back({"content", getRawAttribute(child, "src"),
                             hasAttribute(child, "type"),
                             static_cast<int>(xmlGetLineNo(child))});
    } else if (isElement(child, "feature")) {
      // Only the exact text "false" makes a feature optional, and the engine
      // provides none.
      const bool required = !hasAttribute(child, "required") ||
                            getRawAttribute(child, "required") != "false";
      if (required)
        add("required-feature-unknown",
            printable(getRawAttribute(child, "name")) + where(child));
    }
  }
}

void PackageLinter::lintAgainstArchive() {
  // Declared icons and start page.
  bool startFound = false;
  for (const Declared& item : declared_) {
    const std::string at = " (config.xml:" + std::to_string(item.line) + ")";
    const std::string type = ContentType::fromExtension(item.src);
    if (item.tag == "content") {
      if (startFound) continue;
      if (!hasFile(item.src)) {
        add("content-src-missing", printable(item.src) + at);
      } else if (!item.typed && type == ContentType::kUnknown) {
        add("content-type-unknown", printable(item.src) + at);
      } else {
        startFound = true;
      }
      continue;
    }
    if (type == ContentType::kUnknown) continue;
    if (!hasFile(item.src)) {
      add("declared-icon-missing", printable(item.src) + at);
      continue;
    }
    if (type == "image/svg+xml") continue;
    const std::string& head = entries_[byName_.at(item.src)].head;
    std::string sniffed = ContentType::kUnknown;
    if (!head.empty()) {
      std::string copy = head;
      if (FILE* memory = fmemopen(&copy[0], copy.size(), "rb")) {
        sniffed = ContentType::fromContent(memory);
        fclose(memory);
      }
    }
    if (sniffed != type)
      add("icon-content-mismatch",
          printable(item.src) + ": named " + type + ", holds " +
              (sniffed == ContentType::kUnknown ? std::string("other data")
                                                : sniffed) +
              at);
  }
  if (configWalked_ && !startFound) {
    bool fallback = false;
    for (const char* name : kDefaultStartFiles) fallback = fallback || hasFile(name);
    if (!fallback) add("start-file-missing", printable(packagePath_));
  }

  // Localized copies: locales/<lang>/<path> wants a <path> at the top.
  static const std::string kLocales = "locales/";
  for (const Entry& entry : entries_) {
    if (entry.name.compare(0, kLocales.size(), kLocales) != 0) continue;
    if (entry.name.back() == '/') continue;
    const size_t slash = entry.name.find('/', kLocales.size());
    if (slash == std::string::npos || slash == kLocales.size()) continue;
    const std::string plain = entry.name.substr(slash + 1);
    if (!plain.empty() && !hasFile(plain))
      add("localized-copy-without-default", printable(entry.name));
  }
}
