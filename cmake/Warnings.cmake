# Flags that every target of ours is compiled with.
add_library(klarbox_options INTERFACE)
target_compile_options(klarbox_options INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow $<$<BOOL:${KLARBOX_WERROR}>:-Werror>)
# GCC 12 sees overlapping copies in ordinary string concatenation (its bug 105651).
target_compile_options(klarbox_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
target_include_directories(klarbox_options INTERFACE ${CMAKE_SOURCE_DIR})
# Sections that nothing refers to are dropped, so that the root daemon carries only what it calls.
target_compile_options(klarbox_options INTERFACE -ffunction-sections -fdata-sections)
target_link_options(klarbox_options INTERFACE -Wl,--as-needed -Wl,--gc-sections)
if(NOT KLARBOX_SANITIZE)
  target_compile_definitions(klarbox_options INTERFACE $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
endif()
target_compile_options(klarbox_options INTERFACE -fstack-protector-strong)

if(KLARBOX_SANITIZE)
  target_compile_options(klarbox_options INTERFACE
    -fsanitize=${KLARBOX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all -O1)
  target_link_options(klarbox_options INTERFACE -fsanitize=${KLARBOX_SANITIZE})
  # Behind the sanitizers' own calls GCC no longer sees what was initialised.
  target_compile_options(klarbox_options INTERFACE
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()
