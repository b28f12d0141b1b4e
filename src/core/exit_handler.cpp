#include "kp/core/exit_handler.h"

void KP_ExitHandler::handleExit(char*) {}
