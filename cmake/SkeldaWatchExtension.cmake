# skelda_add_watch_extension(TARGET
#   IDENTIFIER com.example.app.watch   API_KEY key
#   [APP name] [EXTENSION name] [SETTINGS key value ...] [UNCHECKED])
# skelda_add_watch_extension(TARGET INFO_PLIST file [IDENTIFIER ...] [APP ...] [EXTENSION ...] [UNCHECKED])
#
# Makes a program the extension of a watch application: it is built into the bundle
# APP.app/PlugIns/EXTENSION.appex below the current binary folder, beside an Info.plist. Both names
# are the target's where they are not given. SETTINGS are further keys of the Info.plist, such as
# "Skelda Watch Event Threshold" 20; INFO_PLIST is one of one's own, in which @bundle_identifier@
# stands for IDENTIFIER. The target's property SKELDA_BUNDLE is the bundle's folder.
#
# Nothing but CMake is needed. Where skelda-bundle is installed each build has it look at the bundle,
# and ends where events would be refused; UNCHECKED leaves that out.

# Numbers are written as such under the keys that take one; everything else is text.
function(_skelda_plist_entry result key value)
  foreach(text key value)
    string(REPLACE "&" "&amp;" ${text} "${${text}}")
    string(REPLACE "<" "&lt;" ${text} "${${text}}")
    string(REPLACE ">" "&gt;" ${text} "${${text}}")
  endforeach()
  set(kind string)
  if(key MATCHES "^Skelda .*(Threshold|Capacity|Debug|WatchConnectivity)$" AND value MATCHES "^-?[0-9]+$")
    set(kind integer)
  endif()
  string(APPEND ${result} "\t<key>${key}</key>\n\t<${kind}>${value}</${kind}>\n")
  set(${result} "${${result}}" PARENT_SCOPE)
endfunction()

function(_skelda_write_plist path)
  # What comes later takes the place of what came first.
  set(keys "")
  set(values "")
  while(ARGN)
    list(POP_FRONT ARGN key value)
    list(FIND keys "${key}" place)
    if(place GREATER_EQUAL 0)
      list(REMOVE_AT keys ${place})
      list(REMOVE_AT values ${place})
    endif()
    list(APPEND keys "${key}")
    list(APPEND values "${value}")
  endwhile()
  set(entries "")
  foreach(key value IN ZIP_LISTS keys values)
    _skelda_plist_entry(entries "${key}" "${value}")
  endforeach()
  file(CONFIGURE OUTPUT ${path} @ONLY CONTENT
"<?xml version=\"1.0\" encoding=\"UTF-8\"?>
<plist version=\"1.0\">
<dict>
@entries@</dict>
</plist>
")
endfunction()

function(_skelda_check_bundle_at_build_time target bundle)
  if(CMAKE_CROSSCOMPILING)
    return()
  endif()
  find_program(SKELDA_BUNDLE_PROGRAM skelda-bundle HINTS
    ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../../../bin ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../../../../bin)
  mark_as_advanced(SKELDA_BUNDLE_PROGRAM)
  if(SKELDA_BUNDLE_PROGRAM)
    add_custom_command(TARGET ${target} POST_BUILD VERBATIM
      COMMAND ${SKELDA_BUNDLE_PROGRAM} --check --quiet ${bundle})
  else()
    message(STATUS "Skelda_Watch: skelda-bundle is not installed, so builds do not check the Info.plist of ${target}")
  endif()
endfunction()

function(skelda_add_watch_extension target)
  cmake_parse_arguments(PARSE_ARGV 1 arg "UNCHECKED" "IDENTIFIER;API_KEY;APP;EXTENSION;INFO_PLIST" "SETTINGS")
  set(call "skelda_add_watch_extension(${target}):")
  if(NOT TARGET ${target})
    message(FATAL_ERROR "${call} there is no such target; call add_executable(${target} ...) first.")
  endif()
  if(arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "${call} \"${arg_UNPARSED_ARGUMENTS}\" is no argument of it.")
  endif()
  list(LENGTH arg_SETTINGS words)
  math(EXPR odd "${words} % 2")
  if(odd)
    message(FATAL_ERROR "${call} SETTINGS are pairs, a key and its value.")
  endif()
  if(NOT arg_INFO_PLIST AND NOT (arg_IDENTIFIER AND arg_API_KEY))
    message(FATAL_ERROR "${call} IDENTIFIER and API_KEY are needed: without the one, files are kept "
      "under a name that another application may have, without the other every event is refused. "
      "Or give INFO_PLIST, a file with both.")
  endif()
  foreach(name APP EXTENSION)
    if(NOT arg_${name})
      set(arg_${name} ${target})
    endif()
  endforeach()

  set(bundle ${CMAKE_CURRENT_BINARY_DIR}/${arg_APP}.app/PlugIns/${arg_EXTENSION}.appex)
  if(arg_INFO_PLIST)
    set(bundle_identifier "${arg_IDENTIFIER}")
    configure_file(${arg_INFO_PLIST} ${bundle}/Info.plist @ONLY)
  else()
    _skelda_write_plist(${bundle}/Info.plist
      CFBundleIdentifier "${arg_IDENTIFIER}" CFBundleExecutable "${arg_EXTENSION}"
      CFBundlePackageType "XPC!" CFBundleShortVersionString "1.0" CFBundleVersion "1"
      "Skelda Watch API Key" "${arg_API_KEY}" ${arg_SETTINGS})
  endif()
  # The expression keeps generators of several configurations from adding a folder of their own.
  set_target_properties(${target} PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY $<1:${bundle}> OUTPUT_NAME ${arg_EXTENSION} SKELDA_BUNDLE ${bundle})
  if(NOT arg_UNCHECKED)
    _skelda_check_bundle_at_build_time(${target} ${bundle})
  endif()
endfunction()
