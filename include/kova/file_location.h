/// Where files of each kind live, and on/off switches of the environment.
///
/// A fixed table maps a bare file name to its directory by wildcard pattern; the first row that matches
/// counts:
///
/// | pattern       | directory         | what                                          |
/// |---------------|-------------------|-----------------------------------------------|
/// | `*.kovamtx`   | `/tmp/kova/`      | key files of shared mutexes                   |
/// | `*.kovasem`   | `/tmp/kova/`      | of shared semaphores and read-write locks     |
/// | `*.kovashm`   | `/tmp/kova/`      | of shared memory                              |
/// | `*.cache`     | `/tmp/kova/cache/`| caches                                        |
/// | `Marbelo.jar` | `/tmp/`           | archive of a viewer tool                      |
/// | `*.vqf`       | `/tmp/`           |                                               |
/// | `*.*`         | `/tmp/voxa/hubl/` | every other name with a dot, queues included  |
/// | the empty name| `/tmp/`           | also the default of names that match nothing  |
///
/// The functions record no errors and may be called from any thread.
#ifndef KOVA_FILE_LOCATION_H
#define KOVA_FILE_LOCATION_H

#include <kova/export.h>

#include <string>

extern "C" {

/// Looks `name` up and copies its directory, which ends in "/", into `directory` (at least 4097 characters)
/// unless that is null. 0 with `*is_default` 0 when a row matched, 1 with `*is_default` 1 for the default. In
/// a pattern "*" also stands for "/" and for a leading dot.
// NOLINTNEXTLINE(readability-identifier-naming): the name that its users know
KOVA_API int zent_query_file_location(const char* name, char* directory, int* is_default);

/// As above; always true. `directory` holds at least 4097 characters, whatever `size` says.
KOVA_API bool KovaQueryFileLocation(const char* name, char* directory, unsigned int size);
}

/// Reads the environment variable `name`: true for "true" and "1", false for "false" and "0", `default_value`
/// for anything else and when it is not set.
KOVA_API bool KovaIsEnabled(const std::string& name, bool default_value);

#endif
