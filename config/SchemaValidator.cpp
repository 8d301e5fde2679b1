// SPDX-License-Identifier: Apache-2.0
#include "config/SchemaValidator.h"

#include "config/XmlText.h"

SchemaValidator::SchemaValidator(const std::string& path)
    : parser(xmlRelaxNGNewParserCtxt(path.c_str())) {
  if (!parser) return;
  xmlRelaxNGSetParserStructuredErrors(parser.get(), xmltext::ignoreError,
                                      nullptr);
  schema.reset(xmlRelaxNGParse(parser.get()));
}

SchemaValidator::~SchemaValidator() {}

bool SchemaValidator::prepare() {
  if (schema && !validator) validator.reset(xmlRelaxNGNewValidCtxt(schema.get()));
  return validator != nullptr;
}

int SchemaValidator::validate(xmlDoc* doc, xmlStructuredErrorFunc onError,
                              void* context) {
  xmlRelaxNGSetValidStructuredErrors(validator.get(), onError, context);
  return xmlRelaxNGValidateDoc(validator.get(), doc);
}
