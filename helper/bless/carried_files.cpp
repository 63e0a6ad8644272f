// SPDX-License-Identifier: MIT
#include "carried_files.h"

#define CARRIED(function, symbol, file)                                                                                \
    asm(".pushsection .rodata\n" symbol "_begin:\n.incbin \"" file "\"\n" symbol "_end:\n.popsection");                \
    extern const char function##Begin[] asm(symbol "_begin");                                                          \
    extern const char function##End[] asm(symbol "_end");                                                              \
    QByteArrayView BlessContents::function()                                                                           \
    {                                                                                                                  \
        return {function##Begin, function##End};                                                                       \
    }

CARRIED(clientUp, "carried_client_up", CORVALE_RESOURCES "/client.up")
CARRIED(clientDown, "carried_client_down", CORVALE_RESOURCES "/client.down")
CARRIED(busPolicy, "carried_bus_policy", CORVALE_PACKAGING "/com.corvale.macos.helper.conf")
CARRIED(busService, "carried_bus_service", CORVALE_PACKAGING "/com.corvale.macos.helper.service")
CARRIED(unit, "carried_unit", CORVALE_PACKAGING "/systemd/com.corvale.macos.helper.service")
CARRIED(restoringUnit, "carried_restoring_unit", CORVALE_PACKAGING "/systemd/corvale-restore.service")
CARRIED(restoringAtBoot, "carried_restoring_at_boot", CORVALE_PACKAGING "/systemd/sysinit.target.conf")
