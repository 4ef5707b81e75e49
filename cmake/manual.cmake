# The HTML manual: a short front page, the comments of the public headers, the format of key files
# and the list of changes. Built with the rest; anything that Doxygen warns about fails the build.
find_package(Doxygen REQUIRED)

set(DOXYGEN_PROJECT_NAME libvemra-util)
set(DOXYGEN_PROJECT_NUMBER ${PROJECT_VERSION})
set(DOXYGEN_PROJECT_BRIEF "${PROJECT_DESCRIPTION}")
set(DOXYGEN_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/manual)
set(DOXYGEN_USE_MDFILE_AS_MAINPAGE docs/manual.md)
set(DOXYGEN_LAYOUT_FILE ${PROJECT_SOURCE_DIR}/docs/manual-layout.xml)
set(DOXYGEN_GENERATE_TREEVIEW YES)
set(DOXYGEN_STRIP_FROM_INC_PATH ${PROJECT_SOURCE_DIR}/include)
set(DOXYGEN_STRIP_FROM_PATH ${PROJECT_SOURCE_DIR})
set(DOXYGEN_JAVADOC_AUTOBRIEF YES)
set(DOXYGEN_ALWAYS_DETAILED_SEC YES)
set(DOXYGEN_DISTRIBUTE_GROUP_DOC YES)
set(DOXYGEN_SORT_MEMBER_DOCS NO)
set(DOXYGEN_GENERATE_LATEX NO)
set(DOXYGEN_HAVE_DOT NO)
set(DOXYGEN_MACRO_EXPANSION YES)
set(DOXYGEN_EXPAND_ONLY_PREDEF YES)
set(DOXYGEN_PREDEFINED VUTIL_EXPORT=)
set(DOXYGEN_QUIET YES)
set(DOXYGEN_WARN_IF_INCOMPLETE_DOC NO)
set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)

# Doxygen 1.9 drops attributes; this one is part of the interface.
set(DOXYGEN_INPUT_FILTER "sed 's/\\[\\[nodiscard\\]\\] VUTIL_EXPORT/nodiscard/'")

# Debian's package doxygen-awesome-css: readable on a phone and in the dark. The manual is the same
# without it, but plainer.
find_path(MANUAL_STYLE doxygen-awesome.css PATHS /usr/share/doxygen-awesome-css
  NO_CMAKE_FIND_ROOT_PATH)
if(MANUAL_STYLE)
  set(DOXYGEN_HTML_EXTRA_STYLESHEET
    ${MANUAL_STYLE}/doxygen-awesome.css ${MANUAL_STYLE}/doxygen-awesome-sidebar-only.css)
endif()

doxygen_add_docs(manual docs/manual.md docs/format.md CHANGELOG.md include/vutil ALL
  COMMENT "Building the HTML manual")
if(VEMRA_UTIL_INSTALL)
  install(DIRECTORY ${DOXYGEN_OUTPUT_DIRECTORY}/html
    DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
endif()
