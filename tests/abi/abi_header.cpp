/* The public header compiled as C++ (see abi_header.c). */
#include "abi_header.c"
