// SPDX-License-Identifier: Apache-2.0
// The five keys under which a widget's localized texts are stored in and read
// back from the registry. The installer writes under these names and the
// lookups read them, so both take them from here.
#ifndef WIDGETENGINE_LOCALIZEDITEMKEYS_H_
#define WIDGETENGINE_LOCALIZEDITEMKEYS_H_

namespace localizeditems {

constexpr const char kName[] = "name";
constexpr const char kShortName[] = "shortname";
constexpr const char kDescription[] = "description";
constexpr const char kLicense[] = "license";
constexpr const char kLicenseHref[] = "licensehref";

// In the order in which they are written and resolved.
constexpr const char* const kAll[] = {kName, kShortName, kDescription,
                                      kLicense, kLicenseHref};
constexpr int kCount = 5;

// The language under which a widget's unlocalized texts are stored.
constexpr const char kDefaultLanguage[] = "default";

}  // namespace localizeditems

#endif  // WIDGETENGINE_LOCALIZEDITEMKEYS_H_
