// mapwait <command> [args]: starts the command and prints the milliseconds until a
// top-level window of it is mapped on $DISPLAY, then ends it with SIGTERM.
// Without a window manager every top-level window is a child of the root window.
#include <xcb/xcb.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sys/wait.h>
#include <unistd.h>

static double now()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

int main(int argc, char *argv[])
{
    if (argc < 2)
        return 2;
    xcb_connection_t *x = xcb_connect(nullptr, nullptr);
    if (const int error = xcb_connection_has_error(x)) {
        std::fprintf(stderr, "mapwait: no X display (xcb error %d)\n", error);
        return 2;
    }
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(x)).data->root;
    const uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
    xcb_request_check(x, xcb_change_window_attributes_checked(x, root, XCB_CW_EVENT_MASK, &mask));

    const double start = now();
    const pid_t child = fork();
    if (child == 0) {
        execvp(argv[1], argv + 1);
        _exit(127);
    }
    int status = 1;
    while (xcb_generic_event_t *event = xcb_wait_for_event(x)) {
        const bool mapped = (event->response_type & 0x7f) == XCB_MAP_NOTIFY;
        free(event);
        if (mapped) {
            std::printf("%.1f\n", (now() - start) * 1000);
            status = 0;
            break;
        }
    }
    kill(child, SIGTERM);
    waitpid(child, nullptr, 0);
    xcb_disconnect(x);
    return status;
}
