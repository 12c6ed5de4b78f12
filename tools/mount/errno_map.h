// The one table from the library's failure codes to errno values, for the
// FUSE mount (and any POSIX face of the library).
#pragma once

namespace ntfs::mount {

// The errno that stands for `code` (a library failure code or a device code
// passed through); EIO for any code the table does not name. 0 gives 0.
int ErrnoFromCode(unsigned int code);

}  // namespace ntfs::mount
