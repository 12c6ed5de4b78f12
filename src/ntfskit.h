// Umbrella header for host programs: the storage boundary, the volume
// interface, the NTFS volume and the enumeration record.
#pragma once

#include "foundation/log.h"
#include "volume/find_data.h"
#include "volume/ntfs_volume.h"
#include "volume/storage.h"
#include "volume/volume.h"
