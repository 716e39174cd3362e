#include "change_notification.h"
