// Commands that need the file interface of the volume.
#include "cli.h"
#include "foundation/log.h"

namespace ntfs::cli {

int CommandList(const Options&) { return Fail("ls", ERROR_NOT_SUPPORTED); }
int CommandCat(const Options&) { return Fail("cat", ERROR_NOT_SUPPORTED); }
int CommandGet(const Options&) { return Fail("get", ERROR_NOT_SUPPORTED); }
int CommandWrite(const Options&) { return Fail("write", ERROR_NOT_SUPPORTED); }

}  // namespace ntfs::cli
