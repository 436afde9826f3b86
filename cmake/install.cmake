# The plotting helper and the install rules: `cmake --install <build> --prefix P`
# puts mixrank, mixrank-classify and mixrank-plot into P/bin and the manual
# pages into P/share/man/man1.
include(GNUInstallDirs)

# mixrank-plot only reads a report or classification file and drives gnuplot:
# no matrix library, only the file helpers that need none.
add_library(mixrank_plain_io STATIC ${CMAKE_SOURCE_DIR}/src/io/atomic_file.cpp ${CMAKE_SOURCE_DIR}/src/io/whole_file.cpp
            ${CMAKE_SOURCE_DIR}/src/io/child_process.cpp)
target_include_directories(mixrank_plain_io PUBLIC ${CMAKE_SOURCE_DIR}/src)
add_executable(mixrank_plot ${CMAKE_SOURCE_DIR}/app/mixrank_plot.cpp ${CMAKE_SOURCE_DIR}/app/plot_class.cpp
               ${CMAKE_SOURCE_DIR}/app/plot_run.cpp)
target_link_libraries(mixrank_plot PRIVATE mixrank_plain_io)
set_target_properties(mixrank_plot PROPERTIES OUTPUT_NAME mixrank-plot)

install(TARGETS mixrank mixrank_select mixrank_classify mixrank_plot RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS mixrank_core ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${CMAKE_SOURCE_DIR}/include/mixrank/mixrank.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/mixrank)
install(FILES ${CMAKE_SOURCE_DIR}/doc/mixrank.1 ${CMAKE_SOURCE_DIR}/doc/mixrank-classify.1 ${CMAKE_SOURCE_DIR}/doc/mixrank-select.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# The installation test installs this build tree into a temporary prefix and
# runs the installed programs.
if(TARGET e2e_tests)
  target_compile_definitions(e2e_tests PRIVATE
    MIXRANK_BUILD_DIR="${CMAKE_BINARY_DIR}"
    MIXRANK_CMAKE="${CMAKE_COMMAND}"
    MIXRANK_PLOT_BINARY="$<TARGET_FILE:mixrank_plot>"
    MIXRANK_SELECT_BINARY="$<TARGET_FILE:mixrank_select>"
    MIXRANK_CLASSIFY_BINARY="$<TARGET_FILE:mixrank_classify>"
    MIXRANK_DOC_DIR="${CMAKE_SOURCE_DIR}/doc")
  add_dependencies(e2e_tests mixrank_plot mixrank_classify mixrank_select)
endif()
