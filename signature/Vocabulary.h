// SPDX-License-Identifier: Apache-2.0
// Vocabulary holds the names a widget signature is written in: namespaces,
// the identifiers its elements carry, the property values and the algorithms
// the engine accepts. The verifier and the maker read them from here, so
// that what one writes the other accepts.
#ifndef WIDGETENGINE_SIGNATURE_VOCABULARY_H_
#define WIDGETENGINE_SIGNATURE_VOCABULARY_H_

#include <cstddef>

namespace signatureVocabulary {

const char kDsigNamespace[] = "http://www.w3.org/2000/09/xmldsig#";
const char kPropertiesNamespace[] = "http://www.w3.org/2009/xmldsig-properties";

const char kAuthorSignatureId[] = "AuthorSignature";
const char kDistributorSignatureId[] = "DistributorSignature";
// The ds:Object that holds the signature properties.
const char kPropertiesId[] = "prop";

const char kProfileUri[] = "http://www.w3.org/ns/widgets-digsig#profile";
const char kAuthorRoleUri[] = "http://www.w3.org/ns/widgets-digsig#role-author";
const char kDistributorRoleUri[] =
    "http://www.w3.org/ns/widgets-digsig#role-distributor";

// Canonicalization, without comments.
const char kC14n11[] = "http://www.w3.org/2006/12/xml-c14n11";
const char kExclusiveC14n[] = "http://www.w3.org/2001/10/xml-exc-c14n#";
const char kRsaSha256[] = "http://www.w3.org/2001/04/xmldsig-more#rsa-sha256";
const char kEcdsaSha256[] = "http://www.w3.org/2001/04/xmldsig-more#ecdsa-sha256";
const char kSha256[] = "http://www.w3.org/2001/04/xmlenc#sha256";

// Rules a signer's certificate chain can break; a failure reads
// "<rule>: <detail>". They say nothing of the package's files.
const char kUntrustedSigner[] = "untrusted-signer";
const char kExpiredCertificate[] = "expired-certificate";
const char kCertificateNotYetValid[] = "certificate-not-yet-valid";

// Largest signature document read, in bytes: a real one holds a reference
// per file (some 200 bytes each) and a few certificates.
const size_t kLargestDocument = 1u << 20;

}  // namespace signatureVocabulary

#endif  // WIDGETENGINE_SIGNATURE_VOCABULARY_H_
