# The literal algorithms the benchmarks race against, as a library of their
# own: the unit tests check that the driver gives the same results. Included
# by bench/ and by tests/, whichever comes first defines it.
if(NOT TARGET kq71_reference)
  add_library(kq71_reference STATIC ${CMAKE_CURRENT_LIST_DIR}/reference_algorithms.cpp)
  target_include_directories(kq71_reference PUBLIC ${CMAKE_CURRENT_LIST_DIR} ${PROJECT_SOURCE_DIR}/tests/common)
  target_link_libraries(kq71_reference PUBLIC kq71_static ${KQ71_QT_CORE})
  set_target_properties(kq71_reference PROPERTIES CXX_STANDARD 17 CXX_STANDARD_REQUIRED ON)
  target_compile_options(kq71_reference PRIVATE -Wall -Wextra -Werror)
endif()
