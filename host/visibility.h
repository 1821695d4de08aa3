#pragma once

// What the host daemon supplies is not part of the library: the library refers to these symbols and
// the executable that loads it defines them. They therefore keep default visibility in a build that
// hides everything else.
#define ZEFS_HOST_API __attribute__((visibility("default")))
