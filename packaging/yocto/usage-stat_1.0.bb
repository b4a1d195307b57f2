SUMMARY = "Usage statistics of an e-book reader's applications"
# No licence has been chosen by the owner of the code.
LICENSE = "CLOSED"

# A local tree; a layer of a firmware may name its repository in SRC_URI instead.
inherit externalsrc cmake pkgconfig useradd update-rc.d systemd
EXTERNALSRC = "${USAGE_STAT_SOURCE}"

DEPENDS = "openssl velmora-platform"

# What runs on the device beside the library: nothing, unless the collector is asked for.
PACKAGECONFIG ??= ""
PACKAGECONFIG[collector] = "-DUSAGE_STAT_BUILD_COLLECTOR=ON,-DUSAGE_STAT_BUILD_COLLECTOR=OFF,cli11 fmt nlohmann-json sqlite3 utfcpp zstd"
PACKAGECONFIG[old-string] = "-DUSAGE_STAT_OLD_STRING_ABI=ON,-DUSAGE_STAT_OLD_STRING_ABI=OFF"

EXTRA_OECMAKE = "-DUSAGE_STAT_BUILD_PLATFORM=OFF -DUSAGE_STAT_PLATFORM_ROOT=${STAGING_DIR_TARGET}"

do_install:append() {
    if [ -e ${D}${bindir}/usage-stat-collector ]; then
        install -D -m 0755 ${S}/packaging/sysvinit/usage-stat-collector ${D}${sysconfdir}/init.d/usage-stat-collector
    fi
}

PACKAGES =+ "${PN}-collector"
FILES:${PN}-collector = "${bindir} ${sysconfdir}/init.d ${systemd_system_unitdir} ${nonarch_libdir}/systemd"

# The user of the sysvinit script; systemd makes one of its own.
USERADD_PACKAGES = "${PN}-collector"
USERADD_PARAM:${PN}-collector = "--system --no-create-home --shell /bin/false usage-stat"

INITSCRIPT_PACKAGES = "${PN}-collector"
INITSCRIPT_NAME:${PN}-collector = "usage-stat-collector"
# Before the applications that report to it, after them when the device goes down.
INITSCRIPT_PARAMS:${PN}-collector = "start 20 2 3 4 5 . stop 80 0 1 6 ."
SYSTEMD_PACKAGES = "${PN}-collector"
SYSTEMD_SERVICE:${PN}-collector = "usage-stat-collector.service"
