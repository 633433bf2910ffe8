# What differs between systems, processors and C libraries, and what makes the library give the same results on all.
include(CheckCXXSourceCompiles)

# A fused multiply-add rounds once where two operations round twice, and some processors have it.
target_compile_options(kesp_options INTERFACE -ffp-contract=off)
check_cxx_source_compiles("#ifndef __i386__\n#error\n#endif\nint main() {}" KESP_TARGET_IS_I386)
if(KESP_TARGET_IS_I386)
  # The older unit computes with more digits than a double has, and changes some values that are not numbers.
  target_compile_options(kesp_options INTERFACE -msse2 -mfpmath=sse)
endif()
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # Files above 2 GiB, and times after January 2038. No installed header has a type whose width depends on these.
  target_compile_definitions(kesp_options INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

# Each has a fallback. Set to OFF, the fallback is used though the system has it.
check_cxx_source_compiles("
    #include <unistd.h>
    int main() { return ::copy_file_range(0, nullptr, 1, nullptr, 1, 0) < 0; }" KESP_HAS_COPY_FILE_RANGE)
check_cxx_source_compiles("
    #include <fcntl.h>
    #include <stdio.h>
    int main() { return ::renameat2(AT_FDCWD, \"a\", AT_FDCWD, \"b\", RENAME_NOREPLACE); }" KESP_HAS_RENAMEAT2)
check_cxx_source_compiles("
    #include <sys/mman.h>
    int main() { return ::madvise(nullptr, 0, MADV_HUGEPAGE) + ::madvise(nullptr, 0, MADV_FREE); }" KESP_HAS_MADVISE)
check_cxx_source_compiles("
    #include <sched.h>
    int main() {
      cpu_set_t mine;
      return ::sched_getaffinity(0, sizeof mine, &mine) != 0 || CPU_COUNT(&mine) > 1;
    }" KESP_HAS_SCHED_AFFINITY)
# Room for the thread-local variables of a library that a program opens while it runs. Other C libraries refuse one
# that asks for it.
check_cxx_source_compiles("
    #include <gnu/libc-version.h>
    [[gnu::tls_model(\"initial-exec\")]] thread_local int number = 0;
    int main() { return ::gnu_get_libc_version()[number]; }" KESP_HAS_SPARE_STATIC_TLS)
check_cxx_source_compiles("
    #include <charconv>
    int main(int, char** argv) { double number; return std::from_chars(argv[0], argv[0], number).ec == std::errc(); }"
    KESP_HAS_DOUBLE_FROM_CHARS)
foreach(feature COPY_FILE_RANGE RENAMEAT2 MADVISE SCHED_AFFINITY SPARE_STATIC_TLS DOUBLE_FROM_CHARS)
  target_compile_definitions(kesp_options INTERFACE KESP_HAS_${feature}=$<BOOL:${KESP_HAS_${feature}}>)
endforeach()
