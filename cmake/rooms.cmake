# SPDX-License-Identifier: MIT
# One library for each room, which links only the rooms that it may look at. A room's headers are found through its
# target alone, so an arrow that is not listed does not build.

add_library(corvale_flags INTERFACE)
target_compile_options(corvale_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual -Wnull-dereference
  -Wformat=2 -Wundef)
target_compile_definitions(corvale_flags INTERFACE
  QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII QT_NO_FOREACH QT_STRICT_ITERATORS
  QT_DISABLE_DEPRECATED_BEFORE=0x060400)
# Two checkouts of one commit make the same programs to the byte, once they are stripped: no path of this one is written
# into them, and no sum over the debug information, which a compiler cache writes in other words.
target_compile_options(corvale_flags INTERFACE "-ffile-prefix-map=${CMAKE_SOURCE_DIR}=.")
target_link_options(corvale_flags INTERFACE -Wl,--build-id=none)
if(CORVALE_WERROR)
  target_compile_options(corvale_flags INTERFACE -Werror)
endif()
if(CORVALE_SANITIZE)
  # gcc's flow analysis sees paths through the sanitizers' own code and warns about them.
  target_compile_options(corvale_flags INTERFACE
    -fsanitize=${CORVALE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all
    -Wno-null-dereference -Wno-maybe-uninitialized -Wno-tsan)
  target_link_options(corvale_flags INTERFACE -fsanitize=${CORVALE_SANITIZE})
  target_sources(corvale_flags INTERFACE
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:${CMAKE_CURRENT_LIST_DIR}/sanitizers.cpp>)
else()
  target_compile_options(corvale_flags INTERFACE
    $<$<CONFIG:RelWithDebInfo,Release>:-D_FORTIFY_SOURCE=2> -fstack-protector-strong)
  target_link_options(corvale_flags INTERFACE -Wl,-z,relro,-z,now -Wl,--as-needed)
endif()

# What nearly every file includes is compiled once. That is for speed alone: each file still names what it uses, and
# `make lint` reads it without these.
set(CORVALE_COMMON_HEADERS
  <QByteArray> <QCoreApplication> <QFile> <QList> <QObject> <QString> <QStringList>
  <algorithm> <chrono> <functional> <map> <memory> <mutex> <optional> <utility> <variant> <vector>)
file(CONFIGURE OUTPUT common_headers.cpp CONTENT "// nothing but the headers\n")
add_library(corvale_common_headers OBJECT "${CMAKE_CURRENT_BINARY_DIR}/common_headers.cpp")
set_target_properties(corvale_common_headers PROPERTIES AUTOMOC OFF)
target_link_libraries(corvale_common_headers PRIVATE corvale_flags Qt6::Core)
target_precompile_headers(corvale_common_headers PRIVATE ${CORVALE_COMMON_HEADERS})

# corvale_room(NAME SOURCES file... SEES target... USES target...)
# SEES is handed on to whoever looks at this room (its headers name those types); USES stays inside.
function(corvale_room name)
  cmake_parse_arguments(room "" "" "SOURCES;SEES;USES" ${ARGN})
  add_library(corvale_${name} STATIC ${room_SOURCES})
  target_include_directories(corvale_${name} PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
  target_link_libraries(corvale_${name} PUBLIC ${room_SEES} PRIVATE corvale_flags ${room_USES})
  target_precompile_headers(corvale_${name} REUSE_FROM corvale_common_headers)
endfunction()
