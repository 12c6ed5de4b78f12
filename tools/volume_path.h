// Volume paths ("\dir\name", the root "\") taken apart and put together, for
// the command and the mount alike.
#pragma once

#include <string>

namespace ntfs {

inline std::u16string JoinPath(const std::u16string& directory, const std::u16string& name) {
    return directory == u"\\" ? u"\\" + name : directory + u"\\" + name;
}

// The directory part ("\" for a name in the root).
inline std::u16string ParentPath(const std::u16string& path) {
    const size_t slash = path.rfind(u'\\');
    return slash == 0 || slash == std::u16string::npos ? u"\\" : path.substr(0, slash);
}

// The last component.
inline std::u16string LeafOf(const std::u16string& path) {
    const size_t slash = path.rfind(u'\\');
    return slash == std::u16string::npos ? path : path.substr(slash + 1);
}

// The volume's folding of names: a to z lose bit 5, nothing else changes.
inline char16_t FoldNameUnit(char16_t unit) {
    return unit >= u'a' && unit <= u'z' ? static_cast<char16_t>(unit - 32) : unit;
}

}  // namespace ntfs
