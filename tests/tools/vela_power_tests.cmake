# The tools suite runs the vela-power program itself: it needs the program
# built, and knows where it, the test graphs and the shipped example are.
add_dependencies(test_tools vela-power)
target_link_libraries(test_tools PRIVATE vela_powergraph vela_cli)
target_compile_definitions(test_tools PRIVATE
  VELA_POWER_PROGRAM="$<TARGET_FILE:vela-power>"
  VELA_TOOLS_DATA_DIR="${CMAKE_CURRENT_SOURCE_DIR}/tools/data"
  VELA_EXAMPLE_GRAPH="${PROJECT_SOURCE_DIR}/examples/graphs/handheld.json"
  VELA_MANUAL_PAGE="${PROJECT_SOURCE_DIR}/docs/vela-power.1")

# A write never answered times out after 5 s of simulated time; the run must
# not wait for them on the wall clock. The bound is this test's time-out.
add_test(NAME Tools.NeverAnsweredWriteTakesNoWallTime
  COMMAND test_tools --gtest_filter=RunOutputs.NeverAnsweredWriteTimesOutAtExactlyFiveSecondsOfSimulatedTime)
set_tests_properties(Tools.NeverAnsweredWriteTakesNoWallTime PROPERTIES LABELS tools TIMEOUT 3
  ENVIRONMENT "QT_QPA_PLATFORM=offscreen")
