/// \file
/// Symbol visibility of the library's public API: everything else is hidden.
#pragma once

/// Marks a class or function as part of the library's exported interface.
#define TAVI_EXPORT __attribute__((visibility("default")))
