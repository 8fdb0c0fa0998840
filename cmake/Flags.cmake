# Flags that everything of ours is compiled with, and nothing of whoever includes this project.
add_compile_options(
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow $<$<BOOL:${KLARBOX_WERROR}>:-Werror>)
# GCC 12 sees overlapping copies in ordinary string concatenation (its bug 105651).
add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
include_directories(${PROJECT_SOURCE_DIR})
# Sections that nothing refers to are dropped, so that the root daemon carries only what it calls.
add_compile_options(-ffunction-sections -fdata-sections)
add_link_options(-Wl,--as-needed -Wl,--gc-sections)
if(NOT KLARBOX_SANITIZE)
  add_compile_definitions($<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
endif()
add_compile_options(-fstack-protector-strong)

if(KLARBOX_SANITIZE)
  add_compile_options(
    -fsanitize=${KLARBOX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all -O1)
  add_link_options(-fsanitize=${KLARBOX_SANITIZE})
  # Behind the sanitizers' own calls GCC no longer sees what was initialised.
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()
