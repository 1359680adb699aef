set(ZQ_WARNINGS -Wall -Wextra -Werror -Wshadow -Wformat=2 -Wno-format-nonliteral
  -Wundef -Wcast-align -Wnull-dereference)
