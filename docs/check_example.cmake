# Checks that a documentation page quotes its example program exactly as it is compiled.
#
#   cmake -DPAGE=<page.md> -DEXAMPLE=<examples/x.cpp> [-DQUOTE_OUT=<file>] -P check_example.cmake
#   cmake -DPAGE=<page.md> -DEXAMPLE=<examples/x.cpp> -DUPDATE=ON -P check_example.cmake
#
# The page marks the quote with a comment naming the file, followed by a fenced C++ block:
#
#   <!-- example: examples/x.cpp -->
#   ```cpp
#   ...the file, byte for byte...
#   ```
#
# When they differ, the quoted text is written to QUOTE_OUT so that it can be compared with diff.
# With UPDATE on, the page's quote is replaced by the file instead.

foreach(var PAGE EXAMPLE)
    if(NOT DEFINED ${var})
        message(FATAL_ERROR "check_example.cmake: ${var} is not set")
    endif()
endforeach()

get_filename_component(example_name ${EXAMPLE} NAME)
set(marker "<!-- example: examples/${example_name} -->\n```cpp\n")

file(READ ${PAGE} page)
file(READ ${EXAMPLE} code)

string(FIND "${page}" "${marker}" begin)
if(begin EQUAL -1)
    message(FATAL_ERROR "${PAGE} does not quote examples/${example_name} as it is: "
        "no \"<!-- example: examples/${example_name} -->\" followed by a ```cpp block")
endif()
string(LENGTH "${marker}" marker_length)
math(EXPR begin "${begin} + ${marker_length}")
string(SUBSTRING "${page}" ${begin} -1 rest)
# The closing fence is the first line that is just ```; the quote keeps its last line end, as
# the file does.
string(FIND "\n${rest}" "\n```\n" end)
if(end EQUAL -1)
    message(FATAL_ERROR "${PAGE}: the quote of examples/${example_name} is not closed")
endif()
string(SUBSTRING "${rest}" 0 ${end} quoted)

if(NOT quoted STREQUAL code AND UPDATE)
    string(SUBSTRING "${page}" 0 ${begin} before)
    string(SUBSTRING "${rest}" ${end} -1 after)
    file(WRITE ${PAGE} "${before}${code}${after}")
    message(STATUS "${PAGE}: quote of examples/${example_name} updated")
elseif(NOT quoted STREQUAL code)
    if(DEFINED QUOTE_OUT)
        file(WRITE ${QUOTE_OUT} "${quoted}")
        set(hint " (compare: diff ${QUOTE_OUT} ${EXAMPLE})")
    endif()
    message(FATAL_ERROR "${PAGE} does not quote examples/${example_name} as it is${hint}")
endif()
