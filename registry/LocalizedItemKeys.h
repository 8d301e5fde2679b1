// The item names under which a widget's localized texts (name, short name,
// description, license, license link) are stored in the localizedItem table.
// The installer writes under these keys and the lookups read them back, so
// both take them from here.
#ifndef WIDGETENGINE_LOCALIZEDITEMKEYS_H_
#define WIDGETENGINE_LOCALIZEDITEMKEYS_H_

namespace LocalizedItemKeys {

constexpr const char kName[] = "name";
constexpr const char kShortName[] = "shortname";
constexpr const char kDescription[] = "description";
constexpr const char kLicense[] = "license";
constexpr const char kLicenseHref[] = "licensehref";

// The five keys in the order in which they are written and resolved.
constexpr const char* const kAll[] = {kName, kShortName, kDescription,
                                      kLicense, kLicenseHref};

}  // namespace LocalizedItemKeys

#endif  // WIDGETENGINE_LOCALIZEDITEMKEYS_H_
