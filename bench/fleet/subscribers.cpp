/*
 * Many clients of one broker in one process, for fleet.py. They subscribe with QoS 1 to a topic,
 * and one more publishes to it.
 *
 * usage: subscribers PORT COUNT ROUNDS
 *
 * Prints "ready" when all have subscribed, and waits for a line. For each round, prints the
 * milliseconds from the call that publishes to the last client that has the message. Then waits for
 * the end of its input. Fails if a round takes longer than 30 s.
 */

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <string>
#include <sys/epoll.h>
#include <vector>

namespace
{

constexpr const char *TOPIC = "bench/topic";
constexpr int KEEPALIVE = 600; /* seconds; nobody sends pings meanwhile */
constexpr int WAIT = 30'000;   /* milliseconds */

int subscribed;
int received;

double now_ms()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_nsec) / 1e6;
}

void on_subscribe(mosquitto *, void *, int, int, const int *)
{
    subscribed++;
}

void on_message(mosquitto *, void *, const mosquitto_message *)
{
    received++;
}

void check(int result, const char *what)
{
    if (result != MOSQ_ERR_SUCCESS) {
        fprintf(stderr, "subscribers: %s: %s\n", what, mosquitto_strerror(result));
        exit(EXIT_FAILURE);
    }
}

mosquitto *connect_client(int port)
{
    mosquitto *client = mosquitto_new(nullptr, true, nullptr);
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_subscribe_callback_set(client, on_subscribe);
    mosquitto_message_callback_set(client, on_message);
    check(mosquitto_connect(client, "127.0.0.1", port, KEEPALIVE), "connect");
    return client;
}

/* Reads until `*count` is `wanted`. */
void run(int epoll, const int *count, int wanted)
{
    epoll_event events[64];
    while (*count < wanted) {
        const int ready = epoll_wait(epoll, events, 64, WAIT);
        if (ready <= 0) {
            fprintf(stderr, "subscribers: %d of %d\n", *count, wanted);
            exit(EXIT_FAILURE);
        }
        for (int i = 0; i < ready; i++) {
            check(mosquitto_loop_read(static_cast<mosquitto *>(events[i].data.ptr), 1), "read");
        }
    }
}

int read_number(const char *text)
{
    return static_cast<int>(strtol(text, nullptr, 10));
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4) {
        return EXIT_FAILURE;
    }
    const int port = read_number(argv[1]);
    const int count = read_number(argv[2]);
    const int rounds = read_number(argv[3]);
    mosquitto_lib_init();
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    for (int i = 0; i <= count; i++) {
        mosquitto *client = connect_client(port);
        if (i < count) {
            check(mosquitto_subscribe(client, nullptr, TOPIC, 1), "subscribe");
        }
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.ptr = client;
        epoll_ctl(epoll, EPOLL_CTL_ADD, mosquitto_socket(client), &event);
        if (i == count) {
            run(epoll, &subscribed, count);
            puts("ready");
            fflush(stdout);
            getchar();
            for (int round = 0; round < rounds; round++) {
                received = 0;
                const double begin = now_ms();
                check(mosquitto_publish(client, nullptr, TOPIC, 200, std::string(200, 'x').data(),
                                        1, false),
                      "publish");
                run(epoll, &received, count);
                printf("%.3f\n", now_ms() - begin);
            }
            fflush(stdout);
        }
    }
    while (getchar() != EOF) {
    }
    return EXIT_SUCCESS;
}
