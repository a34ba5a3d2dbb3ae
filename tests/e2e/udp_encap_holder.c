// udp_encap_holder PORT SECONDS: holds a UDP socket with the ESP-in-UDP option
// on PORT, so that the kernel decapsulates the ESP packets arriving there (the
// IKE daemon's job on a device). Prints "ready", then waits until it is killed
// or SECONDS have passed.
#include <netinet/in.h>
#include <netinet/udp.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons((uint16_t)atoi(argc > 1 ? argv[1] : ""))};
    const int encap = UDP_ENCAP_ESPINUDP, fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (argc != 3 || fd < 0 || bind(fd, (const struct sockaddr *)&address, sizeof address) != 0 ||
        setsockopt(fd, IPPROTO_UDP, UDP_ENCAP, &encap, sizeof encap) != 0) {
        perror("usage: udp_encap_holder PORT SECONDS");
        return 1;
    }
    printf("ready\n");
    fflush(stdout);
    for (unsigned left = (unsigned)atoi(argv[2]); left > 0;)
        left = sleep(left);
    return close(fd);
}
