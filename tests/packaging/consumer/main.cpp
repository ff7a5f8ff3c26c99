// Calls into the installed library and checks two channel-plan answers.
#include <cstdio>

#include <orca-vtx/orca-common.h>

int main() {
    const int frequency = channel_to_frequency(36);
    const int channel = frequency_to_channel(2484);
    if (frequency != 5180 || channel != 14) {
        fprintf(stderr,
                "Error: liborca-vtx answered channel 36 -> %d MHz, 2484 MHz -> channel %d\n",
                frequency, channel);
        return 1;
    }
    printf("liborca-vtx: channel 36 is %d MHz, 2484 MHz is channel %d\n", frequency, channel);
    return 0;
}
