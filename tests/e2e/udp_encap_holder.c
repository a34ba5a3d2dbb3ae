/*
 * Holds a UDP socket with the ESP-in-UDP option on a port, so that the
 * kernel decapsulates the ESP packets that arrive there (the IKE daemon's
 * job on a device). Prints "ready" once the socket is set up, then waits
 * until it is killed or SECONDS have passed.
 *
 * usage: udp_encap_holder PORT SECONDS
 */
#include <netinet/in.h>
#include <netinet/udp.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: udp_encap_holder PORT SECONDS\n");
        return 2;
    }
    struct sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons((uint16_t)atoi(argv[1]))};
    const int encap = UDP_ENCAP_ESPINUDP;
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0 || bind(fd, (const struct sockaddr *)&address, sizeof address) != 0 ||
        setsockopt(fd, IPPROTO_UDP, UDP_ENCAP, &encap, sizeof encap) != 0) {
        perror("udp_encap_holder");
        return 1;
    }
    printf("ready\n");
    fflush(stdout);
    for (unsigned left = (unsigned)atoi(argv[2]); left > 0;)
        left = sleep(left);
    close(fd);
    return 0;
}
