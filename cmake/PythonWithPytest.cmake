# Sets `python` to a Python 3 that can import pytest. Scripts read it from the cache.
#
# A python3 on PATH may lack the distribution's pytest, so /usr/bin is searched first.
foreach(candidate IN ITEMS ${NORVAK_PYTHON} /usr/bin/python3 python3)
  execute_process(COMMAND ${candidate} -c "import pytest" RESULT_VARIABLE status
                  OUTPUT_QUIET ERROR_QUIET)
  if(status EQUAL 0)
    set(NORVAK_PYTHON ${candidate} CACHE FILEPATH "Python 3 that can import pytest" FORCE)
    set(python ${candidate})
    return()
  endif()
endforeach()
message(FATAL_ERROR
  "No Python 3 with pytest was found. Install it: 'apt-get install python3-pytest' (Debian, "
  "Ubuntu) or 'dnf install python3-pytest' (Fedora, CentOS).")
