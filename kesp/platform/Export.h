// Marks what the shared library exports; other symbols are hidden.
#pragma once

#ifndef _WIN32
#define KESP_EXPORT __attribute__((visibility("default")))
#elif defined(KESP_STATIC)  // defined by hosts of the static library; the CMake package does it
#define KESP_EXPORT
#elif defined(KESP_BUILDING_DLL)
#define KESP_EXPORT __declspec(dllexport)
#else
#define KESP_EXPORT __declspec(dllimport)
#endif
