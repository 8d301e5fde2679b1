// SPDX-License-Identifier: Apache-2.0
// The lines of the uninstaller that the query job writes as well, word for
// word: the two jobs are siblings to the browser and speak alike, the guard
// against a second run included, whose text names the uninstaller for both.
// The uninstaller owns them; the query borrows them from here, and the clean
// step that writes two of them.
#ifndef WIDGETENGINE_UNINSTALLERLINES_H_
#define WIDGETENGINE_UNINSTALLERLINES_H_

namespace unInstallerLines {

inline constexpr char kRunTwice[] = "WidgetUnInstaller cannot be run twice";
// A name found on more than one row.
inline constexpr char kIntegrityProblem[] =
    "It's not possible to see this log. Database integrity problem";
inline constexpr char kNameMustBeUnique[] =
    "'name' Field in 'Widgets' Table must be unique";

// The end of a job: "[Cleaning...]" between blank lines when alreadyRun is
// set, which it then clears, else "Nothing to clean".
void clean(bool* alreadyRun);

}  // namespace unInstallerLines

#endif  // WIDGETENGINE_UNINSTALLERLINES_H_
