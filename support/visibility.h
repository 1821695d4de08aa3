#pragma once

// Marks what the shared library offers to the host; all else is hidden.
#define ZEFS_EXTMAP_API __attribute__((visibility("default")))
