// What passes between a host and the array, on a socket with little room.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>
#include <thread>

#include "lab/array/media/files.h"
#include "lab/array/transport/wire.h"

namespace {

struct Sockets {
    Sockets() {
        int fds[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        sending = lab::Fd(fds[0]);
        receiving = lab::Fd(fds[1]);
        // The kernel makes it the least that it has, some KiB.
        const int room = 1;
        EXPECT_EQ(setsockopt(fds[0], SOL_SOCKET, SO_SNDBUF, &room, sizeof room), 0);
    }
    lab::Fd sending, receiving;
};

std::string pattern(size_t size, char first) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>(first + static_cast<char>(i % 61));
    return text;
}

struct iovec piece_of(std::string *text) {
    return {text->data(), text->size()};
}

TEST(Wire, pieces_arrive_whole_and_in_order_when_the_socket_takes_them_in_parts) {
    const Sockets sockets;
    std::string first = pattern(100'000, 'a'), empty, last = pattern(300'001, 'Z');
    std::string received(first.size() + last.size(), '\0');
    bool complete = false;
    std::thread reader([&] {
        complete = lab::receive_all(sockets.receiving.get(), received.data(), received.size());
    });
    struct iovec pieces[] = {piece_of(&empty), piece_of(&first), piece_of(&empty), piece_of(&last)};
    EXPECT_TRUE(lab::send_pieces(sockets.sending.get(), pieces, 4));
    reader.join();
    EXPECT_TRUE(complete);
    EXPECT_TRUE(received == first + last);
}

TEST(Wire, pieces_with_nothing_in_them_are_sent_without_a_peer) {
    struct iovec pieces[2] = {};
    EXPECT_TRUE(lab::send_pieces(-1, pieces, 2));
}

TEST(Wire, pieces_to_a_peer_that_is_gone_fail_without_a_signal) {
    Sockets sockets;
    sockets.receiving = lab::Fd();
    std::string text = "head";
    struct iovec piece = piece_of(&text);
    EXPECT_FALSE(lab::send_pieces(sockets.sending.get(), &piece, 1));
}

TEST(Wire, head_and_texts_come_in_one_piece) {
    const Sockets sockets;
    std::string head = pattern(sizeof(lab::RequestHead), 'h'), texts = "000184500123";
    struct iovec pieces[] = {piece_of(&head), piece_of(&texts)};
    EXPECT_TRUE(lab::send_pieces(sockets.sending.get(), pieces, 2));
    char buffer[256];
    EXPECT_EQ(recv(sockets.receiving.get(), buffer, sizeof buffer, 0),
              static_cast<ssize_t>(head.size() + texts.size()));
}

}  // namespace
