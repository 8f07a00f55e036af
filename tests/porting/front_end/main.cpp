/** The least that a front end of somebody else's is. */
#include <cpudefend/client.h>

#include <iostream>

int main()
try {
    cpudefend::Client client;
    client.bind("default");
    std::cout << client.boundPolicy() << '\n';
} catch (const cpudefend::Error &error) {
    std::cerr << error.sentence("bind policy default") << '\n';
    return 1;
}
