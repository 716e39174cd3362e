#include "drive_redirection.h"
