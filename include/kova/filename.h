/// One file path as text: composing, expanding, locating, renaming, creating and numbering.
///
/// A path that begins with neither "/" nor "." is placed in the directory of its kind (file_location.h).
/// `$NAME` stands for an environment variable; a name is made of letters, digits and "_", without braces, and
/// what is not set stays as it is. The C-style functions of file_list.h expand and cut by rules of their own.
///
/// Errors: errno of a failed `mkdir`, by `CreatePath` and by `CreateFile` and `ResolveFileNo`, which make
/// directories with it; errno of a failed `fopen`, by `CreateFile`, which is false without an error where the
/// new file cannot be closed. Nothing else fails. A null text is an empty one. Threads: an object is not
/// shared; all three change the process's umask while they run.
#ifndef KOVA_FILENAME_H
#define KOVA_FILENAME_H

#include <kova/base_object.h>
#include <kova/export.h>

#include <string>

class KOVA_API KovaFilename : public KovaBaseObject {
  public:
    /// The empty path; the only one that is not resolved by `FullPath`.
    KovaFilename();
    KovaFilename(const char* path);
    KovaFilename(const std::string& path);
    /// Copies the error record as well.
    KovaFilename(const KovaFilename& other);
    /// `dir`, a "/" where it has none at its end unless it is empty, `name`, a "." unless `ext` begins with
    /// one, `ext`; null parts are left out.
    KovaFilename(const char* dir, const char* name, const char* ext);
    /// As above with `name2` directly behind `name`.
    KovaFilename(const char* dir, const char* name, const char* name2, const char* ext);
    ~KovaFilename() override;

    /// Replaces the path and resolves it; the error record stays.
    KovaFilename& operator=(const KovaFilename& other);
    KovaFilename& operator=(const char* path);

    /// The path; the texts are the object's and live until it changes.
    const std::string& PathFileName() const { return m_Path; }
    operator const std::string&() const { return m_Path; }
    operator const char*() const { return m_Path.c_str(); }
    /// What stands before the last "/"; a path without "/" is its own directory.
    std::string GetPath() const;
    /// What stands behind the last "/"; of a path without "/", all but its first character.
    std::string GetPureFileName() const;
    /// Whether something exists under this path.
    bool Exist() const;

    /// Each of these changes the path and returns it.

    /// Replaces `$NAME` by values, which are expanded in turn. Stops after 256 replacements and before the
    /// path passes 4095 characters.
    const std::string& ReplaceEnv();
    /// Expands, and puts the directory of its kind before a path that begins with neither "/" nor ".".
    const std::string& FullPath();
    /// Replaces all behind the first "." of the name by `ext`. A name without ".", and any path without "/",
    /// gets a "." at its end first.
    const std::string& ReplaceExtension(const char* ext);
    /// Replaces the name up to its last "."; a path without "/" keeps its first character.
    const std::string& ReplaceName(const char* name);
    /// Inserts `text` before the first "." of the name; in a name without ".", before its last character.
    const std::string& AppendToName(const char* text);
    /// Appends a "." unless `ext` begins with one, and `ext`.
    const std::string& AppendToExtension(const char* ext);

    /// Makes every missing directory of the path, with mode 0777. False at the first that cannot be made.
    bool CreatePath();
    /// Makes the file, empty, and its directories; true also when it exists. Mode 0666.
    bool CreateFile();
    /// Makes the directories of the path, chooses the first number below `max_files` (at most 10000) whose
    /// file does not exist, or the file that was modified longest ago if all do, and returns the path; the
    /// number is 0 when `max_files` is. It stands, zero-filled, for the "#" (or else "*") of the name, or
    /// behind an added "_", and has as many digits as `max_files` - 1 or as there are marks. The path stays
    /// as it is where its directories cannot be made.
    const std::string& ResolveFileNo(unsigned int max_files);

  private:
    std::string m_Path;
};

#endif
