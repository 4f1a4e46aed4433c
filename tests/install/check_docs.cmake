cmake_minimum_required(VERSION 3.20)
# The manual pages and the completion script:
#  - libqmxvlib(3) has a row for every reason code the header names;
#  - qmxmgr(1) has a section for every command group of `qmxmgr --help`
#    and renders without warnings;
#  - the bash completion completes group names and verbs.
file(READ ${SOURCE_DIR}/include/qmxvlib.h header)
file(READ ${SOURCE_DIR}/doc/libqmxvlib.3 page3)
string(REGEX MATCHALL "#define (QMX_ERR_[A-Z0-9_]+) +([0-9]+)" codes "${header}")
if(NOT codes)
  message(FATAL_ERROR "no reason codes found in qmxvlib.h")
endif()
foreach(def IN LISTS codes)
  string(REGEX MATCH "(QMX_ERR_[A-Z0-9_]+) +([0-9]+)" _ "${def}")
  if(NOT page3 MATCHES "\n${CMAKE_MATCH_2} \\\\fB${CMAKE_MATCH_1}\\\\fR\n")
    message(FATAL_ERROR "libqmxvlib.3 has no row for ${CMAKE_MATCH_1} (${CMAKE_MATCH_2})")
  endif()
endforeach()

execute_process(COMMAND ${QMXMGR} --help OUTPUT_VARIABLE help RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "qmxmgr --help failed")
endif()
file(READ ${MANPAGE} page1)
string(REGEX MATCH "Subcommands:\n(.*)" _ "${help}")
string(REGEX MATCHALL "\n  ([a-z-]+)" groups "\n${CMAKE_MATCH_1}")
list(LENGTH groups ngroups)
if(ngroups LESS 3)
  message(FATAL_ERROR "cannot read the command groups from:\n${help}")
endif()
foreach(g IN LISTS groups)
  string(STRIP "${g}" g)
  string(REPLACE "-" "\\\\-" groff_name "${g}")
  if(NOT page1 MATCHES "\n\\.SS ${groff_name}\n")
    message(FATAL_ERROR "qmxmgr.1 has no section for the group ${g}")
  endif()
endforeach()
find_program(GROFF groff)
if(GROFF)
  foreach(page ${MANPAGE} ${SOURCE_DIR}/doc/libqmxvlib.3)
    execute_process(COMMAND ${GROFF} -man -t -ww -z ${page} ERROR_VARIABLE warn RESULT_VARIABLE rc)
    if(NOT rc EQUAL 0 OR warn)
      message(FATAL_ERROR "${page} does not render cleanly: ${warn}")
    endif()
  endforeach()
endif()

# Completion: "qmxmgr numb<TAB>" and "qmxmgr numbering <TAB>".
set(probe [=[
source "$1"
complete_words() { COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _qmxmgr; echo "${COMPREPLY[*]}"; }
[ "$(complete_words qmxmgr numb)" = numbering ] || { echo "group: $(complete_words qmxmgr numb)"; exit 1; }
case " $(complete_words qmxmgr numbering '') " in *" set "*) ;; *) echo "verbs: $(complete_words qmxmgr numbering '')"; exit 1;; esac
case " $(complete_words qmxmgr show --js) " in *" --json "*) ;; *) echo "option"; exit 1;; esac
]=])
execute_process(COMMAND bash -c "${probe}" probe ${COMPLETION} OUTPUT_VARIABLE out ERROR_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "bash completion: ${out}")
endif()
