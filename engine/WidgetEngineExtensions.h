/* SPDX-License-Identifier: Apache-2.0 */
/* WidgetEngineExtensions.h: what a host may use beside WidgetEngineDelegate.
 * Plain C functions, callable from C and C++, that put the engine's lines
 * under the host's control, tell why the last installation or removal was
 * refused, turn a browser's Accept-Language header into the engine's language
 * list and report an installation's progress. A host that uses none of them
 * sees the engine exactly as before. They also tell where a host keeps a
 * widget's web data. */
#ifndef WIDGETENGINE_WIDGETENGINEEXTENSIONS_H_
#define WIDGETENGINE_WIDGETENGINEEXTENSIONS_H_

#include <stddef.h>
#include <stdint.h>

#include <widgetengine/Export.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Where the engine's lines go -------------------------------------- */

/* The level of one line, as the engine writes it: "[E:..." lines and the
 * lines that announce a failure are errors, "[V:..." lines are traces, the
 * rest (progress of a job) is information. */
#define WIDGETENGINE_LOG_ERROR 1
#define WIDGETENGINE_LOG_INFO 2
#define WIDGETENGINE_LOG_VERBOSE 3

/* Destinations. DEFAULT is what the environment variable WIDGETENGINE_LOG
 * chose when the engine first wrote ("stdout", "stderr", "syslog" or
 * "quiet"; standard output when unset). */
#define WIDGETENGINE_LOG_TO_DEFAULT 0
#define WIDGETENGINE_LOG_TO_STDOUT 1
#define WIDGETENGINE_LOG_TO_STDERR 2
#define WIDGETENGINE_LOG_TO_SYSLOG 3
#define WIDGETENGINE_LOG_TO_QUIET 4

/* Sends every later line of the engine, in every thread, to destination.
 * Returns 0, or -1 (and changes nothing) for an unknown destination. */
WIDGETENGINE_EXPORT int widgetengine_set_log_destination(int destination);

/* Receives one whole line of the engine, without its line end, with its
 * level. Called on the thread that wrote the line; line is valid only during
 * the call. */
typedef void (*widgetengine_log_sink)(int level, const char* line,
                                      void* user_data);

/* Sends every later line to sink (it replaces the destination) until another
 * sink or a destination is set; a null sink goes back to the destination
 * set last. */
WIDGETENGINE_EXPORT void widgetengine_set_log_sink(widgetengine_log_sink sink,
                                                   void* user_data);

/* ---- Why the last call was refused ------------------------------------ */

/* Stable codes of widgetengine_last_refusal(). */
#define WIDGETENGINE_REFUSAL_NONE 0            /* the last call succeeded */
#define WIDGETENGINE_REFUSAL_BAD_ARGUMENT 1    /* a null address or name */
#define WIDGETENGINE_REFUSAL_REGISTRY 2        /* widget.db unusable */
#define WIDGETENGINE_REFUSAL_BUSY 3            /* the name is being installed */
#define WIDGETENGINE_REFUSAL_NOT_FOUND 4       /* no package at the address */
#define WIDGETENGINE_REFUSAL_HTTP_STATUS 5     /* the server answered an error */
#define WIDGETENGINE_REFUSAL_DOWNLOAD 6        /* any other failed download */
#define WIDGETENGINE_REFUSAL_NOT_A_ZIP 7       /* the package is no zip */
#define WIDGETENGINE_REFUSAL_BAD_PACKAGE 8     /* empty, folders only, encrypted */
#define WIDGETENGINE_REFUSAL_BAD_ENTRY_NAME 9  /* an entry name leads outside */
#define WIDGETENGINE_REFUSAL_DAMAGED_ENTRY 10  /* an entry cannot be read */
#define WIDGETENGINE_REFUSAL_NO_SPACE 11       /* the package does not fit */
#define WIDGETENGINE_REFUSAL_WRITE_FAILED 12   /* a file could not be written */
#define WIDGETENGINE_REFUSAL_NO_CONFIG 13      /* no config.xml */
#define WIDGETENGINE_REFUSAL_INVALID_CONFIG 14 /* config.xml is refused */
#define WIDGETENGINE_REFUSAL_NO_START_FILE 15  /* no start page */
#define WIDGETENGINE_REFUSAL_NAME_TAKEN 16     /* another widget has the name */
#define WIDGETENGINE_REFUSAL_NOT_INSTALLED 17  /* no widget of that name */
#define WIDGETENGINE_REFUSAL_REMOVE_FAILED 18  /* the widget could not go */
#define WIDGETENGINE_REFUSAL_INTERNAL 19       /* anything else */
#define WIDGETENGINE_REFUSAL_ADDRESS 20        /* a protocol other than http,
                                                  https, file; a file address
                                                  of a host but localhost; or
                                                  a name the launch URL
                                                  cannot carry */
#define WIDGETENGINE_REFUSAL_UNTRUSTED 21      /* a directory or file that
                                                  another user owns or can
                                                  write, or a link of theirs
                                                  on the way to one */
#define WIDGETENGINE_REFUSAL_SIGNATURE 22      /* the signature policy
                                                  refuses the package */
#define WIDGETENGINE_REFUSAL_NOT_AN_UPDATE 23  /* the package cannot replace
                                                  that widget in place */

/* The outcome of the calling thread's last receiveWidget, deleteWidget or
 * widgetengine_update_widget: WIDGETENGINE_REFUSAL_NONE after a success (or
 * before any call), else the code of the refusal. When reason is not null,
 * *reason receives one line that says why ("" after a success), valid on
 * this thread until its next such call. */
WIDGETENGINE_EXPORT int widgetengine_last_refusal(const char** reason);

/* ---- Accept-Language -------------------------------------------------- */

/* Turns an HTTP Accept-Language header ("en-US,de;q=0.8, fr;q=0.9, *;q=0.1")
 * into the language string that getInfo() and mapResource() expect: the
 * tags by falling quality (equal qualities keep their order), without
 * quality values, blanks, "*", repeated tags or tags of quality 0, joined
 * by ",". A null header gives "". Returns a string the caller releases with
 * free(), or null when memory runs out. */
WIDGETENGINE_EXPORT char* widgetengine_accept_language(const char* header);

/* ---- Progress of an installation -------------------------------------- */

#define WIDGETENGINE_PROGRESS_DOWNLOAD 1 /* done, total: bytes */
#define WIDGETENGINE_PROGRESS_UNPACK 2   /* done, total: entries */

/* Called on the installing thread while receiveWidget() downloads (total is
 * 0 while the size is unknown) and after each entry it unpacks. */
typedef void (*widgetengine_progress_callback)(int stage, uint64_t done,
                                               uint64_t total,
                                               void* user_data);

/* Installs callback for every later installation, in every thread; null
 * removes it. */
WIDGETENGINE_EXPORT void widgetengine_set_progress_callback(
    widgetengine_progress_callback callback, void* user_data);

/* ---- Damaged packages ------------------------------------------------- */

/* By default an entry that cannot be read to its end is kept as far as it
 * was read and counts as unpacked, as it always has. With on non-zero,
 * every later installation, in every thread, checks each entry's size and
 * CRC-32 as it is written and refuses a package whose entry does not match
 * (WIDGETENGINE_REFUSAL_DAMAGED_ENTRY), leaving nothing. widgetctl and
 * widget-browser turn it on. */
WIDGETENGINE_EXPORT void widgetengine_set_verify_entries(int on);

/* ---- Signed packages -------------------------------------------------- */

/* What an installation does with the package's signatures
 * (author-signature.xml, signature1.xml, ... at its root). OFF: nothing at
 * all, as always. REPORT: they are checked once the package is unpacked and
 * the result is kept with the widget; nothing is refused. REQUIRE: also
 * refuses (WIDGETENGINE_REFUSAL_SIGNATURE, status 6 of receiveWidget) a
 * package without a valid author signature whose signer chains to a trust
 * anchor, and one with any signature that does not hold. */
#define WIDGETENGINE_SIGNATURES_DEFAULT 0 /* WIDGETENGINE_SIGNATURES decides */
#define WIDGETENGINE_SIGNATURES_OFF 1
#define WIDGETENGINE_SIGNATURES_REPORT 2
#define WIDGETENGINE_SIGNATURES_REQUIRE 3

/* Sets the policy of every later installation, in every thread; it wins
 * over the environment variable WIDGETENGINE_SIGNATURES ("off", "report" or
 * "require"; off when unset), which DEFAULT goes back to. Returns 0, or -1
 * (and changes nothing) for an unknown policy. */
WIDGETENGINE_EXPORT int widgetengine_set_signature_policy(int policy);

/* The folder of PEM files (*.pem, *.crt) whose certificates signers must
 * chain to, roots or intermediates, for every later installation; it wins
 * over WIDGETENGINE_TRUST_ANCHORS and the built-in folder, which a null
 * folder goes back to. The folder and its files must be the calling user's
 * or root's and writable by no one else. The system's store of web
 * authorities is never used. */
WIDGETENGINE_EXPORT void widgetengine_set_trust_anchors(const char* folder);

/* What the installation of the widget called name learnt of its
 * signatures, as a JSON object the caller releases with free():
 *   {"name": "clock", "checked": false}
 * when it was installed with the policy off, else
 *   {"name": "clock", "checked": true, "policy": "report" | "require",
 *    "signed": bool, "valid": bool,
 *    "author": null | {"file", "valid", "subject", "fingerprint", "anchor",
 *                      "identifier", "failures": ["rule: detail", ...]},
 *    "distributors": [ same as author, highest number first ],
 *    "failures": ["file: rule: detail", ...]}
 * "valid" is true when the package has a valid author signature and no
 * signature or file broke a rule; "fingerprint" is the signer certificate's
 * SHA-256 as hexadecimal pairs separated by colons. Null when no widget has
 * that name, the registry cannot be read or memory runs out. */
WIDGETENGINE_EXPORT char* widgetengine_signature_info(const char* name);

/* ---- Update checks ---------------------------------------------------- */

/* Asks the update description that the config.xml of the widget called name
 * points at (<update-description href="..."/>) whether another version is on
 * offer: one HTTP GET, conditional on the ETag and Last-Modified of that
 * description's last full answer (If-None-Match, If-Modified-Since), with
 * languages (as getInfo() takes them, "fr-CA,en"; null or "" for none) as
 * its Accept-Language. A 304 is answered from the document kept in the
 * registry with them. Redirects are not followed. Returns a JSON object the
 * caller releases with free():
 *   {"name": "clock", "installed": "1.0", "updateDescription": null}
 * when config.xml names none, else
 *   {"name", "installed", "updateDescription": "http://...",
 *    "checked": true, "notModified": bool, "available": bool,
 *    "version": "2.0", "src": "http://.../clock.wgt", "details": "..."}
 * or, when no answer could be had,
 *   {"name", "installed", "updateDescription", "checked": false,
 *    "refusal": code (WIDGETENGINE_REFUSAL_...), "reason": "..."}
 * "available" is true when the offered version differs from the installed
 * one; "details" is the description's text for the best of languages. Null
 * when name is null, no widget has that name, the registry cannot be read
 * or memory runs out. */
WIDGETENGINE_EXPORT char* widgetengine_check_update(const char* name,
                                                    const char* languages);

/* The same check for every installed widget: a JSON array of the objects
 * above, in the registry's order. When WIDGETENGINE_UPDATE_JITTER is a
 * number of seconds, the call first waits a random time up to that long,
 * so that a fleet started by one clock spreads its requests. Null when the
 * registry cannot be read or memory runs out. */
WIDGETENGINE_EXPORT char* widgetengine_check_updates(const char* languages);

/* ---- Updates in place ------------------------------------------------- */

/* Replaces the installed widget called name with the package at packageUrl
 * (http, https or file, as receiveWidget takes), in place: the widget keeps
 * its name, its directory and its launch URL, and so the browser's
 * addresses; its files and what its config.xml says become the package's.
 * The package is checked as an installation checks it and unpacked beside
 * the widget's directory; then the widget's rows and its directory change
 * together, so that every lookup, in this process or another, sees the
 * whole old widget or the whole new one. The address must give the widget's
 * own name, as an installation derives it (.../clock.wgt for clock), and
 * the package the same start page. A failed or refused update leaves the
 * widget as it was; an interrupted one leaves it whole, old or (once its
 * rows were committed) new, and what it left is cleaned by the next
 * installation or update of any widget, or removal of that one.
 * Returns WIDGETENGINE_REFUSAL_NONE (0) once updated, else the refusal's
 * code, which widgetengine_last_refusal() then gives with its reason. */
WIDGETENGINE_EXPORT int widgetengine_update_widget(const char* name,
                                                   const char* packageUrl);

/* ---- A widget's web data ---------------------------------------------- */

/* The identity of the installation of the widget called name: 32 lower-case
 * hex digits, the same at every call for as long as the widget stays
 * installed (an update in place keeps it), and a new one once it has been
 * removed and a widget of that name installed again. Made when first asked,
 * in a registry table of its own (a host that never asks has none). Null
 * when no widget of that name is installed, or the registry cannot be
 * written. The caller releases it with free(). */
WIDGETENGINE_EXPORT char* widgetengine_installation_id(const char* name);

/* Kinds of widgetengine_web_data_folder(). */
#define WIDGETENGINE_WEB_DATA 1  /* local storage, IndexedDB, cookies... */
#define WIDGETENGINE_WEB_CACHE 2 /* what may be fetched again */

/* The folder, ending with "/", where a host keeps the web data of kind of
 * the installation of name: $XDG_DATA_HOME/widgetengine/web-data/ID/ and
 * $XDG_CACHE_HOME/widgetengine/web-data/ID/ ($HOME/.local/share and
 * $HOME/.cache when those are not set), ID being its installation's
 * identity. Both are made for the calling user alone (0700) when missing;
 * one that another user owns or can write, or a link, is refused. They go
 * with the widget: deleteWidget() removes the folders of the user who
 * removes it, widgetengine_sweep_web_data() any left. Null, with a line that
 * says why, when there is no such widget or the folders cannot be had. The
 * caller releases it with free(). */
WIDGETENGINE_EXPORT char* widgetengine_web_data_folder(const char* name,
                                                       int kind);

/* Removes the calling user's web data folders of removed installations
 * (a widget removed by another process, a removal that could not finish
 * its folders); the number of installations of which nothing is left now,
 * or -1 when the registry cannot be opened. */
WIDGETENGINE_EXPORT int widgetengine_sweep_web_data(void);

#ifdef __cplusplus
}
#endif

#endif /* WIDGETENGINE_WIDGETENGINEEXTENSIONS_H_ */
