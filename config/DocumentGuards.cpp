// SPDX-License-Identifier: Apache-2.0
#include "config/DocumentGuards.h"

#include <libxml/entities.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <unordered_map>
#include <vector>

namespace documentGuards {

namespace {

// Entity references that the parser leaves in the tree are expanded later,
// whenever libxml2 turns a node list into a string (attribute lookup, text,
// validation), and that expansion concatenates piece by piece. A small
// document can thus demand gigabytes of text or a quadratic number of copies
// (one large entity referenced many times). EntityBudget measures what each
// node list would expand to, without building it, and refuses documents
// beyond fixed bounds before anything expands.
class EntityBudget {
 public:
  explicit EntityBudget(xmlDoc* doc) : doc(doc) {}

  // True when every text and attribute value of the tree expands within the
  // bounds.
  bool fits(xmlNode* root) {
    std::vector<xmlNode*> pending(1, root);
    while (!pending.empty()) {
      xmlNode* element = pending.back();
      pending.pop_back();
      for (xmlAttr* attr = element->properties; attr; attr = attr->next) {
        if (!charge(attr->children)) return false;
      }
      if (!charge(element->children)) return false;
      for (xmlNode* child = element->children; child; child = child->next) {
        if (child->type == XML_ELEMENT_NODE) pending.push_back(child);
      }
    }
    return true;
  }

 private:
  // What a node list expands to: its bytes and the number of pieces that
  // are concatenated one after another to make it.
  struct Size {
    uint64_t bytes = 0;
    uint64_t pieces = 0;
    bool hasReference = false;
    bool inProgress = false;
  };

  // Anything above these is refused. Values without entity references are
  // never measured against them.
  static const uint64_t kMaxExpandedBytes = 16u << 20;
  static const uint64_t kMaxPieces = 1u << 20;
  // Bytes copied while concatenating one value, at most pieces x length.
  static const uint64_t kMaxCopyCost = 256u << 20;
  static const int kMaxEntityDepth = 40;

  static uint64_t add(uint64_t a, uint64_t b) {
    const uint64_t sum = a + b;
    return sum < a ? UINT64_MAX : sum;
  }

  bool charge(xmlNode* list) {
    Size size;
    if (!measure(list, 0, &size)) return false;
    if (!size.hasReference) return true;
    expanded = add(expanded, size.bytes);
    pieces = add(pieces, size.pieces);
    if (expanded > kMaxExpandedBytes || pieces > kMaxPieces) return false;
    const uint64_t cost =
        size.pieces != 0 && size.bytes > UINT64_MAX / size.pieces
            ? UINT64_MAX
            : size.bytes * size.pieces;
    return cost <= kMaxCopyCost;
  }

  // Sizes the flattened text of a node list the way libxml2 flattens it:
  // text and CDATA pieces, entity references replaced by their entity's
  // content, other nodes contributing nothing.
  bool measure(xmlNode* list, int depth, Size* size) {
    for (xmlNode* node = list; node; node = node->next) {
      if (node->type == XML_TEXT_NODE ||
          node->type == XML_CDATA_SECTION_NODE) {
        if (node->content) {
          size->bytes = add(size->bytes, strlen(
              reinterpret_cast<const char*>(node->content)));
        }
        size->pieces = add(size->pieces, 1);
      } else if (node->type == XML_ENTITY_REF_NODE) {
        size->hasReference = true;
        Size inner;
        if (!measureEntity(node, depth, &inner)) return false;
        size->bytes = add(size->bytes, inner.bytes);
        size->pieces = add(size->pieces, add(inner.pieces, 1));
      }
      if (size->hasReference &&
          (size->bytes > kMaxExpandedBytes || size->pieces > kMaxPieces)) {
        return false;
      }
    }
    return true;
  }

  bool measureEntity(xmlNode* reference, int depth, Size* size) {
    xmlEntity* entity = xmlGetDocEntity(doc, reference->name);
    if (!entity) {
      if (reference->content) {
        size->bytes = strlen(reinterpret_cast<const char*>(reference->content));
      }
      return true;
    }
    auto known = sizes.find(entity);
    if (known != sizes.end()) {
      // A size still being computed means the entity refers to itself.
      if (known->second.inProgress) return false;
      *size = known->second;
      return true;
    }
    if (depth >= kMaxEntityDepth) return false;
    sizes[entity].inProgress = true;
    Size result;
    if (!measure(entity->children, depth + 1, &result)) return false;
    sizes[entity] = result;
    *size = result;
    return true;
  }

  xmlDoc* doc;
  uint64_t expanded = 0;
  uint64_t pieces = 0;
  std::unordered_map<const xmlEntity*, Size> sizes;
};

// Real configuration documents hold a few dozen elements. libxml2 validates
// the open content of the schema in time that grows with the square of an
// element's children, and matches an element's attributes in time that grows
// with the square of their number, so a document far beyond any real one is
// refused as invalid instead of holding the browser for minutes.
const size_t kMostElements = 10000;
const size_t kMostAttributes = 10000;
const size_t kMostAttributesPerElement = 256;

// libxml2 checks a start tag's attributes against each other and links each
// new one at the end of the element's list, so reading one tag costs the
// square of its number of attributes: a 200 kB tag holds the parser for a
// minute. The file is therefore scanned before libxml2 reads it, and a tag
// with more attribute marks than kMostAttributesPerElement is refused.
//
// The scan sees the markup characters of the file, whatever its width:
// a document in UTF-16 or UCS-4 is read unit by unit, one in EBCDIC through
// the characters that all EBCDIC pages share, anything else byte by byte.
// Every unit that is not ASCII becomes 'x'.
std::string markupOf(const std::string& bytes) {
  const auto at = [&bytes](size_t i) {
    return static_cast<unsigned char>(bytes[i]);
  };
  const size_t n = bytes.size();
  const auto startsWith = [&](std::initializer_list<unsigned char> prefix) {
    if (n < prefix.size()) return false;
    size_t i = 0;
    for (unsigned char c : prefix) {
      if (at(i++) != c) return false;
    }
    return true;
  };
  std::string markup;
  const auto units = [&](size_t width, bool bigEndian) {
    markup.reserve(n / width);
    for (size_t i = 0; i + width <= n; i += width) {
      uint32_t unit = 0;
      for (size_t k = 0; k < width; ++k) {
        const uint32_t byte = at(i + (bigEndian ? k : width - 1 - k));
        unit = (unit << 8) | byte;
      }
      markup.push_back(unit < 0x80 ? static_cast<char>(unit) : 'x');
    }
  };
  if (startsWith({0x00, 0x00, 0xFE, 0xFF}) ||
      startsWith({0x00, 0x00, 0x00, 0x3C})) {
    units(4, true);
  } else if (startsWith({0xFF, 0xFE, 0x00, 0x00}) ||
             startsWith({0x3C, 0x00, 0x00, 0x00})) {
    units(4, false);
  } else if (startsWith({0xFE, 0xFF}) || startsWith({0x00, 0x3C})) {
    units(2, true);
  } else if (startsWith({0xFF, 0xFE}) || startsWith({0x3C, 0x00})) {
    units(2, false);
  } else if (startsWith({0x4C, 0x6F, 0xA7, 0x94})) {
    markup.reserve(n);
    for (size_t i = 0; i < n; ++i) {
      char c;
      switch (at(i)) {
        case 0x4C: c = '<'; break;
        case 0x6E: c = '>'; break;
        case 0x7E: c = '='; break;
        case 0x50: c = '&'; break;
        case 0x7F: c = '"'; break;
        case 0x7D: c = '\''; break;
        case 0x5A: c = '!'; break;
        case 0x6F: c = '?'; break;
        case 0x61: c = '/'; break;
        case 0x60: c = '-'; break;
        default: c = 'x'; break;
      }
      markup.push_back(c);
    }
  } else {
    return bytes;
  }
  return markup;
}

// True when some start tag carries more attribute marks than any real
// element has attributes. In a start tag written out, every attribute has
// one '=' outside quotes and nothing else does. A start tag inside an entity
// value may spell '=' and quotes as character references; the first '&'
// outside quotes shows one, and from there every '=' and '&' up to the next
// '<' counts. A declaration counts every '=' and '&' up to the next '<', so
// that a start tag spelled entirely with references inside an entity value
// is counted too. Comments, CDATA sections and processing instructions hold
// no tags.
bool hasOverlongTag(const std::string& markup) {
  const size_t n = markup.size();
  size_t i = 0;
  const auto skipPast = [&](const char* end, size_t from) {
    const size_t found = markup.find(end, from);
    return found == std::string::npos ? n : found + strlen(end);
  };
  while (i < n) {
    const size_t open = markup.find('<', i);
    if (open == std::string::npos) break;
    if (markup.compare(open, 4, "<!--") == 0) {
      i = skipPast("-->", open + 4);
    } else if (markup.compare(open, 9, "<![CDATA[") == 0) {
      i = skipPast("]]>", open + 9);
    } else if (markup.compare(open, 2, "<?") == 0) {
      i = skipPast("?>", open + 2);
    } else if (markup.compare(open, 2, "</") == 0) {
      i = open + 2;
    } else {
      bool counting = markup.compare(open, 2, "<!") == 0;
      char quote = 0;
      size_t marks = 0;
      i = open + 1;
      for (; i < n && markup[i] != '<'; ++i) {
        const char c = markup[i];
        if (counting) {
          if (c == '=' || c == '&') ++marks;
        } else if (quote) {
          if (c == quote) quote = 0;
        } else if (c == '"' || c == '\'') {
          quote = c;
        } else if (c == '>') {
          ++i;
          break;
        } else if (c == '=') {
          ++marks;
        } else if (c == '&') {
          counting = true;
          ++marks;
        }
        if (marks > kMostAttributesPerElement) return true;
      }
    }
  }
  return false;
}

}  // namespace

bool expandsWithinBounds(xmlDoc* doc, xmlNode* root) {
  return EntityBudget(doc).fits(root);
}

bool isTooLargeToValidate(xmlNode* root) {
  size_t elements = 0;
  size_t attributes = 0;
  xmlNode* at = root;
  while (at) {
    if (at->type == XML_ELEMENT_NODE) {
      if (++elements > kMostElements) return true;
      size_t own = 0;
      for (xmlAttr* attr = at->properties; attr; attr = attr->next) {
        if (++own > kMostAttributesPerElement) return true;
      }
      attributes += own;
      if (attributes > kMostAttributes) return true;
    }
    if (at->children && at->type == XML_ELEMENT_NODE) {
      at = at->children;
      continue;
    }
    while (at && at != root && !at->next) at = at->parent;
    if (!at || at == root) break;
    at = at->next;
  }
  return false;
}

// A file that cannot be read is left to libxml2, which reports it. A file
// larger than largest is not read to its end.
bool refusesFile(const std::string& path, size_t largest) {
  FILE* file = fopen(path.c_str(), "rb");
  if (!file) return false;
  std::string bytes;
  char buffer[65536];
  size_t got;
  while ((got = fread(buffer, 1, sizeof(buffer), file)) > 0) {
    bytes.append(buffer, got);
    if (bytes.size() > largest) break;
  }
  fclose(file);
  return refusesText(bytes, largest);
}

bool refusesText(const std::string& bytes, size_t largest) {
  if (bytes.size() > largest) return true;
  return hasOverlongTag(markupOf(bytes));
}

}  // namespace documentGuards
