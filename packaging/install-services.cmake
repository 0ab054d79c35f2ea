# Installs the bus policy, the systemd unit and the init script.  Runs at
# install time because only then is the final prefix known (cmake --install
# --prefix, CPack): the unit and the init script must name the directory the
# agent really lands in, and /usr keeps its configuration in /etc.  DESTDIR
# staging is applied by file(INSTALL) and never appears in the files.
# Set by the install(CODE) rule: TAVEL_PACKAGING_SOURCE_DIR,
# TAVEL_PACKAGING_BINARY_DIR, TAVEL_INSTALL_SBINDIR and TAVEL_INSTALL_DATADIR
# (relative or absolute), TAVEL_DBUS_POLICY_DIR (empty: by version),
# TAVEL_DBUS_LEGACY_POLICY (the bus reads SYSCONFDIR only).
string(REGEX REPLACE "(.)/+$" "\\1" _tavel_prefix "${CMAKE_INSTALL_PREFIX}")
# A directory as given when absolute, else under the prefix.
function(tavel_under_prefix out dir)
  if(IS_ABSOLUTE "${dir}")
    set(${out} "${dir}" PARENT_SCOPE)
  else()
    set(${out} "${_tavel_prefix}/${dir}" PARENT_SCOPE)
  endif()
endfunction()
tavel_under_prefix(TAVEL_SBINDIR "${TAVEL_INSTALL_SBINDIR}")
# GNU convention (as GNUInstallDirs): a /usr installation keeps its
# configuration in /etc, any other prefix in PREFIX/etc.
if(_tavel_prefix STREQUAL "/usr")
  set(_tavel_sysconfdir "/etc")
else()
  set(_tavel_sysconfdir "${_tavel_prefix}/etc")
endif()
if(TAVEL_DBUS_POLICY_DIR)
  tavel_under_prefix(_tavel_policy_dir "${TAVEL_DBUS_POLICY_DIR}")
elseif(TAVEL_DBUS_LEGACY_POLICY)
  set(_tavel_policy_dir "${_tavel_sysconfdir}/dbus-1/system.d")
else()
  tavel_under_prefix(_tavel_policy_dir "${TAVEL_INSTALL_DATADIR}/dbus-1/system.d")
endif()
file(INSTALL DESTINATION "${_tavel_policy_dir}" TYPE FILE
     PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
     FILES "${TAVEL_PACKAGING_SOURCE_DIR}/dbus/velka.tavel.conf")

# The unit's ExecStopPost= names iptables by absolute path, as older systemd needs.
set(TAVEL_IPTABLES "/usr/sbin/iptables")
# One directory per destination: two installs of the same build tree may run
# at once (the packaging checks do) and must not write each other's files.
string(MD5 _tavel_dest "$ENV{DESTDIR}|${_tavel_prefix}")
set(_tavel_gen "${TAVEL_PACKAGING_BINARY_DIR}/generated/${_tavel_dest}")
configure_file("${TAVEL_PACKAGING_SOURCE_DIR}/systemd/tavelagent.service" "${_tavel_gen}/tavelagent.service" @ONLY)
configure_file("${TAVEL_PACKAGING_SOURCE_DIR}/init.d/tavelagent" "${_tavel_gen}/tavelagent" @ONLY)

file(INSTALL DESTINATION "${_tavel_prefix}/lib/systemd/system" TYPE FILE
     PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
     FILES "${_tavel_gen}/tavelagent.service")
file(INSTALL DESTINATION "${_tavel_sysconfdir}/init.d" TYPE PROGRAM
     PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE
     FILES "${_tavel_gen}/tavelagent")
