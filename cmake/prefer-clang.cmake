# Compiles with clang if it is installed: with sanitizers, GCC needs twice the time.
find_program(clang clang++)
if(clang)
    set(CMAKE_CXX_COMPILER ${clang})
endif()
