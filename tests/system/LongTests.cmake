# Read by ctest behind the list of tests: these wait for limits of ten seconds.
foreach(test LongShutdown.WaitsTenSecondsForAPluginThatNeverAnswers
             LongCrowd.HearsTheOthersBesideAPluginThatTakesNothingAndCutsItOff)
  set_tests_properties(system_test.${test} PROPERTIES LABELS "system;long")
endforeach()
