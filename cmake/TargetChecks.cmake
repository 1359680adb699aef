# Checks of the shipped object as it goes onto the gateway: ELF class and
# machine, SONAME, stripped size, and the shared objects it needs, which
# must be libc and the dynamic loader only (no C++ runtime, libgcc_s or
# libm). Sanitizer builds need their runtimes, so they skip this check.
if(NOT ZQ_BUILD_TESTS OR ZQ_SANITIZE)
  return()
endif()

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(zq_elf_machine AArch64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set(zq_elf_machine "Advanced Micro Devices X86-64")
else()
  set(zq_elf_machine "")
endif()
foreach(tool STRIP READELF)
  if(CMAKE_${tool})
    set(zq_${tool} ${CMAKE_${tool}})
  else()
    string(TOLOWER ${tool} zq_${tool})
  endif()
endforeach()

enable_testing()
add_test(NAME shipped_library
  COMMAND sh ${PROJECT_SOURCE_DIR}/scripts/check-shipped-lib
    --strip ${zq_STRIP} --readelf ${zq_READELF}
    --machine "${zq_elf_machine}" --soname libzqdiag.so.${PROJECT_VERSION_MAJOR}
    --work ${PROJECT_BINARY_DIR}/shipped
    $<TARGET_FILE:zqdiag>)
set_tests_properties(shipped_library PROPERTIES TIMEOUT 60)
