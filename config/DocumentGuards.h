// SPDX-License-Identifier: Apache-2.0
// DocumentGuards are the checks that keep a hostile config.xml from holding
// the engine: libxml2 spends time and memory that grow faster than a
// document's size on some shapes of document (entities that expand without
// bound, tags with thousands of attributes, elements with thousands of
// children), and no real configuration document has any of them. Each check
// looks before libxml2 does the costly part, and a document that fails one
// is refused.
#ifndef WIDGETENGINE_DOCUMENTGUARDS_H_
#define WIDGETENGINE_DOCUMENTGUARDS_H_

#include <libxml/tree.h>

#include <cstddef>
#include <string>

namespace documentGuards {

// Before parsing: true when the file is larger than largest bytes, or holds
// a start tag with more attribute marks than any real element has
// attributes.
bool refusesFile(const std::string& path, size_t largest);

// The same for a document already read into memory.
bool refusesText(const std::string& bytes, size_t largest);

// After parsing: true when every text and attribute value of the tree under
// root expands, entity references and all, within fixed bounds.
bool expandsWithinBounds(xmlDoc* doc, xmlNode* root);

// Before validating: true for a tree with far more elements or attributes
// than any real document.
bool isTooLargeToValidate(xmlNode* root);

}  // namespace documentGuards

#endif  // WIDGETENGINE_DOCUMENTGUARDS_H_
