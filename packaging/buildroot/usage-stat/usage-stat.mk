################################################################################
#
# usage-stat
#
################################################################################

USAGE_STAT_VERSION = 1.0.0
USAGE_STAT_SITE = $(call qstrip,$(BR2_PACKAGE_USAGE_STAT_SOURCE))
USAGE_STAT_SITE_METHOD = local
# No licence has been chosen by the owner of the code.
USAGE_STAT_LICENSE = PROPRIETARY
USAGE_STAT_REDISTRIBUTE = NO
USAGE_STAT_INSTALL_STAGING = YES
USAGE_STAT_DEPENDENCIES = host-pkgconf openssl $(call qstrip,$(BR2_PACKAGE_USAGE_STAT_PLATFORM))
USAGE_STAT_CONF_OPTS = \
	-DUSAGE_STAT_BUILD_PLATFORM=OFF \
	-DUSAGE_STAT_PLATFORM_ROOT=$(STAGING_DIR)

ifeq ($(BR2_PACKAGE_USAGE_STAT_COLLECTOR),y)
USAGE_STAT_DEPENDENCIES += fmt json-for-modern-cpp sqlite zstd
USAGE_STAT_CONF_OPTS += -DUSAGE_STAT_BUILD_COLLECTOR=ON

# The user of the sysvinit script; systemd makes one of its own.
define USAGE_STAT_USERS
	usage-stat -1 usage-stat -1 * - - - Collector of usage statistics
endef

# Before the applications that report to it.
define USAGE_STAT_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(@D)/packaging/sysvinit/usage-stat-collector \
		$(TARGET_DIR)/etc/init.d/S20usage-stat-collector
endef
else
USAGE_STAT_CONF_OPTS += -DUSAGE_STAT_BUILD_COLLECTOR=OFF
endif

$(eval $(cmake-package))
