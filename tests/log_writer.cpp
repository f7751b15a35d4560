// Writes a line at three levels with the library's own log service.
#include <string>

#include "sennet.h"

int main()
{
    VELMORA_LOGI("info");
    VELMORA_LOGW("%s", "warning two\n\033lines");
    VELMORA_LOGE("%s", std::string(10000, 'x').c_str());
    return 0;
}
