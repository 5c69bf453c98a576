# Instruction sets. Sets ORRERY_BASE_FLAGS, for all that is compiled once; ORRERY_BASE_LINK_FLAGS, by which the dynamic
# linker refuses to load it on a CPU below that level; and ORRERY_BUILT_FOR, the text of orrery_host/_built_for.py, by
# which the package compares the CPU with the build before it loads anything: on a CPU that lacks part of an instruction
# set, even static initialisers may end in SIGILL.

# The levels are the steps of includes/simd/instruction_set.h, each with the flags for what is tested there and no more,
# so that a level asks no more of a CPU than it gains from: AVX2; AVX-512 as every CPU with it has it (Skylake servers);
# its byte permutations and products (Ice Lake, Zen 4); arithmetic in half (Sapphire Rapids).
set(avx512 -march=x86-64-v4)
set(level_x86-64-v3 -march=x86-64-v3)
set(level_x86-64-v4 ${avx512})
set(level_avx512-vbmi ${avx512} -mavx512vbmi -mavx512vnni)
set(level_avx512-fp16 ${avx512} -mavx512vbmi -mavx512vnni -mavx512fp16)

# What compiler flags switch on: the compiler's macros without the underscores around them, and a flag for the linker.
function(orrery_instructions macros_variable link_variable)
  set(macros)
  if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    separate_arguments(flags UNIX_COMMAND "${CMAKE_CXX_FLAGS}")
    execute_process(COMMAND "${CMAKE_CXX_COMPILER}" ${flags} ${ARGN} -dM -E -x c++ /dev/null OUTPUT_VARIABLE macros
                            COMMAND_ERROR_IS_FATAL ANY)
  endif()
  set(names "(SSE|SSSE|AVX)[A-Z0-9]*(_[0-9])?|FMA|F16C|BMI2?|LZCNT|POPCNT|MOVBE")
  string(REGEX MATCHALL "#define __(${names})__ 1" macros "${macros}")
  list(TRANSFORM macros REPLACE "#define __([A-Z0-9_]+)__ 1" "\\1")
  list(SORT macros)

  set(step_2 SSE3 SSSE3 SSE4_1 SSE4_2 POPCNT)
  set(step_3 ${step_2} AVX AVX2 BMI BMI2 F16C FMA LZCNT MOVBE)
  set(step_4 ${step_3} AVX512F AVX512BW AVX512CD AVX512DQ AVX512VL)
  set(link)
  foreach(step 2 3 4)
    set(lacking ${step_${step}})
    list(REMOVE_ITEM lacking ${macros} "")
    if(NOT lacking)
      set(link "LINKER:-z,x86-64-v${step}")
    endif()
  endforeach()
  if(link)
    include(CheckLinkerFlag)
    check_linker_flag(CXX "${link}" ORRERY_LINKER_KNOWS_LEVELS)
  endif()
  if(NOT ORRERY_LINKER_KNOWS_LEVELS)
    set(link)
  endif()
  set(${macros_variable} ${macros} PARENT_SCOPE)
  set(${link_variable} ${link} PARENT_SCOPE)
endfunction()

# Of a level: its flags, its flag for the linker, its line in ORRERY_BUILT_FOR.
function(orrery_add_level name)
  orrery_instructions(macros link ${ARGN})
  list(JOIN macros "\", \"" names)
  set(ORRERY_FLAGS_${name} ${ARGN} PARENT_SCOPE)
  set(ORRERY_LINK_FLAGS_${name} ${link} PARENT_SCOPE)
  string(APPEND ORRERY_BUILT_FOR "    \"${name}\": (\"${names}\",),\n")
  set(ORRERY_BUILT_FOR "${ORRERY_BUILT_FOR}" PARENT_SCOPE)
endfunction()

set(ORRERY_BUILT_FOR "# Written by the build. Levels of the operators, the lowest first; all else is for that one.\n")
string(APPEND ORRERY_BUILT_FOR "LEVELS = {\n")
if(ORRERY_LEVELS)
  foreach(level IN LISTS ORRERY_LEVELS)
    if(NOT DEFINED level_${level})
      message(FATAL_ERROR "ORRERY_LEVELS names levels of cmake/levels.cmake, of which '${level}' is none.")
    endif()
    orrery_add_level(${level} ${level_${level}})
  endforeach()
  list(GET ORRERY_LEVELS 0 lowest)
elseif(ORRERY_MARCH)
  set(lowest ${ORRERY_MARCH})
  orrery_add_level(${lowest} -march=${ORRERY_MARCH})
else()
  set(lowest default)
  orrery_add_level(default)
endif()
string(APPEND ORRERY_BUILT_FOR "}\n")
set(ORRERY_BASE_FLAGS ${ORRERY_FLAGS_${lowest}})
set(ORRERY_BASE_LINK_FLAGS ${ORRERY_LINK_FLAGS_${lowest}})
