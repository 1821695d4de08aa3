#pragma once

#include "table/extent.h"

// What is visible of an older extent beside newer ones. Plain functions: the look-up and the
// prefetch plan clip alike.

namespace Aldenta::Qnd::Morene::Zefs {

/// A newer extent starts at `newerStart`, behind the start of `older`: hides what lies from there
/// on. Nothing happens to an extent that ends before.
void HideBack(Ext* older, long newerStart);

/// A newer extent ends at `newerEnd`, before the end of `older`: hides what lies before. The object
/// offset moves by the same distance, so that the visible bytes keep their place in the object.
/// Nothing happens to an extent that starts behind.
void HideFront(Ext* older, long newerEnd);

}  // namespace Aldenta::Qnd::Morene::Zefs
