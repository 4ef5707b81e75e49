# Read by CPack when it makes packages for the target.
set(SHLIBDEPS_EXECUTABLE ${CMAKE_CURRENT_LIST_DIR}/shlibdeps-armhf)
