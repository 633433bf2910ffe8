# GoogleTest, CLI11 and nlohmann-json, as the same targets whether they are installed for the target or only here.
#
# A cross compiler finds none of Debian's packages for the machine that builds. CLI11 and nlohmann-json are headers, for
# any processor; they are reached by links, since the folder that has them has the headers of the wrong C library too.
# GoogleTest is built from the sources that libgtest-dev installs.
set(KESP_GTEST_SOURCE "" CACHE PATH "Build GoogleTest from the sources in this folder, for another C++ library or processor")

# kesp_find_headers(PACKAGE TARGET FOLDER): find_package, or the headers in FOLDER of /usr/include as TARGET.
macro(kesp_find_headers package target folder)
  if(NOT CMAKE_CROSSCOMPILING)
    find_package(${package} REQUIRED)
  elseif(NOT TARGET ${target})
    find_package(${package} QUIET)
    if(NOT ${package}_FOUND)
      if(NOT EXISTS /usr/include/${folder})
        message(FATAL_ERROR "${package} is needed: /usr/include/${folder} is missing")
      endif()
      file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/headers)
      file(CREATE_LINK /usr/include/${folder} ${PROJECT_BINARY_DIR}/headers/${folder} SYMBOLIC)
      add_library(${target} INTERFACE IMPORTED GLOBAL)
      target_include_directories(${target} SYSTEM INTERFACE ${PROJECT_BINARY_DIR}/headers)
    endif()
  endif()
endmacro()

macro(kesp_find_gtest)
  if(NOT KESP_GTEST_SOURCE AND CMAKE_CROSSCOMPILING)
    find_package(GTest QUIET)
    if(NOT GTest_FOUND)
      set(KESP_GTEST_SOURCE /usr/src/googletest)
    endif()
  elseif(NOT KESP_GTEST_SOURCE)
    find_package(GTest REQUIRED)
  endif()
  if(KESP_GTEST_SOURCE)
    set(BUILD_GMOCK OFF)
    set(INSTALL_GTEST OFF)
    block()
      set(BUILD_SHARED_LIBS OFF)  # Windows would have to find it beside each program
      add_subdirectory(${KESP_GTEST_SOURCE} ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL)
    endblock()
    if(NOT TARGET GTest::gtest_main)
      add_library(GTest::gtest_main ALIAS gtest_main)
    endif()
  endif()
endmacro()
