/// File names in plain character buffers: composing, locating, listing and numbering, in C style.
///
/// A result is written into `result`, at most `size` bytes with its terminating zero, and returned; size 0
/// writes nothing. A null `result` selects a static buffer of 4096 bytes, one for each function, which the
/// next call overwrites and which threads share. A null name or pattern gives the empty result; null parts
/// are left out. Failures show as empty results.
///
/// `$NAME` stands for an environment variable; the shortest name that is set counts, whatever characters it
/// is made of: with `HOME` set, `$HOMEDIR` is the value of `HOME` followed by "DIR". `KovaFilename` differs.
#ifndef KOVA_FILE_LIST_H
#define KOVA_FILE_LIST_H

#include <kova/export.h>

struct dirent;

extern "C" {

/// A file list is a buffer of zero-terminated names one after another, ended by an empty one. The name behind
/// `entry`, or null at the end and for null.
KOVA_API char* KovaNextFileInList(char* entry);

/// Expands `text` in place as far as it stays below `size` characters; returns `text`.
KOVA_API char* KovaReplaceEnvInSting(char* text, unsigned int size);

/// `dir`, a "/" where it has none at its end unless it is empty, `name`, `name2`, and always a "." before
/// `ext`; null parts are left out. Expanded.
KOVA_API char* KovaFileName(const char* dir, const char* name, const char* name2, const char* ext,
                            char* result, unsigned int size);

/// The directory of `name`, with its "/": of a name that begins with neither "/" nor "." the one of its kind,
/// else what stands before the last "/", unless that is the first character.
KOVA_API char* KovaFilePath(const char* name, char* result, unsigned int size);

/// The full path of `name`, expanded; empty where its directory cannot be looked up.
KOVA_API char* KovaFullFilePath(const char* name, char* result, unsigned int size);

/// The calling thread's listing directory, 4096 bytes that live as long as the thread: the working directory
/// at first. Null without memory.
KOVA_API char* KovaGetThreadSafeDir();
/// Copies `dir` there.
KOVA_API void* KovaSetThreadSafeDir(const char* dir);

/// Lists the names in `dir` (null: the directory of `pattern`) that match the wildcard `pattern` into `list`
/// and returns how many there are in it. `dir`, expanded, becomes the thread's listing directory. The list
/// ends where the next name and the end mark do not fit into `size` bytes. Sorted by name, or with
/// `by_date_time` by time of modification, the oldest first. By time `dir` must end in "/": without it no
/// file is found and the order is undefined.
KOVA_API int KovaListFileOrdered(const char* dir, const char* pattern, char* list, unsigned int size,
                                 int by_date_time);
/// By name.
KOVA_API int KovaListFileByAlpha(const char* dir, const char* pattern, char* list, unsigned int size);
KOVA_API int KovaListFile(const char* dir, const char* pattern, char* list, unsigned int size);
/// By time of modification.
KOVA_API int KovaListFileByDateTime(const char* dir, const char* pattern, char* list, unsigned int size);

/// Comparison for `scandir`: negative, 0 or positive as the file `a` of the thread's listing directory was
/// modified before, together with or after `b`. 0 and a line on standard error when one cannot be read. The
/// entries are of the plain `struct dirent`: a 32-bit service that is built with `_FILE_OFFSET_BITS=64` has
/// another one and must not use this; the listing functions serve it as well.
KOVA_API int DateTimeSort(const struct dirent** a, const struct dirent** b);

/// The next file of a numbered set: the first number below `max_files` whose file does not exist, or the file
/// that was modified longest ago if all do; empty for none. The number stands, zero-filled to as many digits
/// as there are "?", for the first "?" or "*" of the name behind the last "/"; further ones are dropped. The
/// result has a directory only if `pattern` begins with "/" or "."; zeros fill the `size` bytes behind it.
KOVA_API char* KovaGetNextFile(const char* pattern, char* result, unsigned int size, unsigned int max_files);
}

#endif
