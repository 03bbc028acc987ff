# How the words about tavrel's options are made: the command, and the files that it reads.
set(main_modules ${CMAKE_SOURCE_DIR}/standins/application/python/Main)
set(TAVREL_OPTION_WORDS ${TAVREL_PYTHON37_HOME}/bin/python3.7 -I -S -B
  ${CMAKE_SOURCE_DIR}/cmake/optionWords.py ${main_modules})
set(TAVREL_OPTION_WORDS_INPUTS ${CMAKE_SOURCE_DIR}/cmake/optionWords.py
  ${main_modules}/MainOptions.py ${main_modules}/MainOptionTable.py)
