# Warnings for the project's own code. -Werror is a switch (ZQ_WERROR) that
# CI and developers turn on: a user's build must not break because a newer
# compiler finds something new to warn about.
option(ZQ_WERROR "Treat warnings as errors" OFF)
set(ZQ_WARNINGS -Wall -Wextra -Wshadow -Wformat=2 -Wno-format-nonliteral
  -Wundef -Wcast-align -Wnull-dereference)
if(ZQ_WERROR)
  list(APPEND ZQ_WARNINGS -Werror)
endif()

# Tests and the host tools (zqdiag-inspect) inline a lot of the standard
# library, GoogleTest and the JSON parser.
# GCC 12's middle-end warnings (-Wnull-dereference, -Wrestrict) fire inside
# that inlined third-party code at -O3 where nothing is wrong, and no
# SYSTEM include can silence a warning raised after inlining; the tests
# keep every other warning.
set(ZQ_TEST_WARNINGS ${ZQ_WARNINGS} -Wno-null-dereference -Wno-restrict)
set(ZQ_HOST_TOOL_WARNINGS ${ZQ_TEST_WARNINGS})
