// Marks what the shared library exports; everything else stays inside it.
#pragma once

#define KESP_EXPORT __attribute__((visibility("default")))
