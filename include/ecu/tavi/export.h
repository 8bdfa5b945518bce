// Symbol visibility of the library's public API: everything else is hidden.
#pragma once

#define TAVI_EXPORT __attribute__((visibility("default")))
