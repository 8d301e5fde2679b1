// SPDX-License-Identifier: Apache-2.0
// SchemaValidator holds parsed documents to a RELAX NG schema with libxml2:
// it loads the schema from a file, then validates a document against it,
// handing each of libxml2's complaints to the caller as it is found. The
// parser of config.xml and the package linter both validate through it, so
// that the two hold a document to the same schema in the same way.
//
//   SchemaValidator validator(path);
//   if (validator.loaded() && validator.prepare())
//     valid = validator.validate(doc, onError, context) == 0;
#ifndef WIDGETENGINE_SCHEMAVALIDATOR_H_
#define WIDGETENGINE_SCHEMAVALIDATOR_H_

#include <libxml/relaxng.h>
#include <libxml/xmlerror.h>

#include <memory>
#include <string>

class SchemaValidator {
 public:
  // Loads the schema at path. What the schema parser finds wrong with it is
  // dropped: whether it can be used is all that loaded() tells. Reading the
  // file itself reports through the thread's libxml2 handlers, which the
  // caller routes (xmltext::ErrorRoute).
  explicit SchemaValidator(const std::string& path);
  ~SchemaValidator();

  SchemaValidator(const SchemaValidator&) = delete;
  SchemaValidator& operator=(const SchemaValidator&) = delete;

  bool loaded() const { return schema != nullptr; }

  // Makes the validation context for a loaded schema; false when libxml2
  // cannot make one.
  bool prepare();

  // 0 when doc follows the schema, else libxml2's result. Every complaint
  // is given to onError with context. Only after prepare() said true.
  int validate(xmlDoc* doc, xmlStructuredErrorFunc onError, void* context);

 private:
  struct ParserFree {
    void operator()(xmlRelaxNGParserCtxt* context) const {
      xmlRelaxNGFreeParserCtxt(context);
    }
  };
  struct SchemaFree {
    void operator()(xmlRelaxNG* schema) const { xmlRelaxNGFree(schema); }
  };
  struct ValidatorFree {
    void operator()(xmlRelaxNGValidCtxt* context) const {
      xmlRelaxNGFreeValidCtxt(context);
    }
  };

  // Freed in the reverse order: validation context, schema, schema parser.
  std::unique_ptr<xmlRelaxNGParserCtxt, ParserFree> parser;
  std::unique_ptr<xmlRelaxNG, SchemaFree> schema;
  std::unique_ptr<xmlRelaxNGValidCtxt, ValidatorFree> validator;
};

#endif  // WIDGETENGINE_SCHEMAVALIDATOR_H_
