# Fails unless the README shows the plug-in example exactly as it is built
# here: cmake -DREADME=<README.md> -DDIR=<this folder> -P CheckReadme.cmake
foreach(example hello.cpp CMakeLists.txt)
  file(READ "${DIR}/${example}" text)
  file(READ "${README}" readme)
  string(FIND "${readme}" "${text}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "README.md does not show ${example} as built in ${DIR}")
  endif()
endforeach()
