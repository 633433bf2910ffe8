// Marks what the shared library exports; other symbols are hidden.
#pragma once

#define KESP_EXPORT __attribute__((visibility("default")))
