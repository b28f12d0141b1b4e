#include "kp/config/config_def.h"

KP_ConfigDef::~KP_ConfigDef() = default;

int KP_ConfigDef::init() {
    KP_Config::reset();
    char fileName[sizeof name + 16];
    std::snprintf(fileName, sizeof fileName, "%s_prvtDef.cfg", name);
    std::FILE* file = openConfigFile("/admin", fileName, "r");
    readGeneralConfigFile(file);
    std::fclose(file);
    return 0;
}

KP_ConfigDef* KP_ConfigDef::create() {
    return kp::createAndInit<KP_ConfigDef>();
}
