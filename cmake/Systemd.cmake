# libsystemd as the target systemd::systemd. Looked for directly, so that a build needs no more than it and a compiler.
find_path(SYSTEMD_INCLUDE_DIR systemd/sd-bus.h REQUIRED)
find_library(SYSTEMD_LIBRARY systemd REQUIRED)
add_library(systemd::systemd UNKNOWN IMPORTED)
set_target_properties(systemd::systemd PROPERTIES
  IMPORTED_LOCATION ${SYSTEMD_LIBRARY}
  INTERFACE_INCLUDE_DIRECTORIES ${SYSTEMD_INCLUDE_DIR})
