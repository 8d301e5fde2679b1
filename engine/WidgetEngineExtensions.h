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

/* The outcome of the calling thread's last receiveWidget or deleteWidget:
 * WIDGETENGINE_REFUSAL_NONE after a success (or before any call), else the
 * code of the refusal. When reason is not null, *reason receives one line
 * that says why ("" after a success), valid on this thread until its next
 * receiveWidget or deleteWidget. */
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
