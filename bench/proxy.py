"""A TCP proxy that puts a distance between client and server.

    proxy.py SERVER_ADDRESS CONTROL_PORT FIRST_DATA_PORT LAST_DATA_PORT MILLISECONDS MEGABITS

Listens on 127.0.0.1 on the server's own ports, so that it need not parse the data, encrypted or not.
Delays every byte by MILLISECONDS each way, and a connection by the time of a three-way handshake.
MEGABITS (0: no limit) is the bandwidth towards the client. For each line on standard input it prints
the number of connections since the last one, and how often the server's bytes followed the client's on
one of them: the round trips, without those of the TCP handshakes.
"""
import asyncio
import sys


class Distance:
    def __init__(self, address, seconds, bits):
        self.address, self.seconds, self.bits = address, seconds, bits
        self.connections = self.turns = 0
        self.free_at = 0.0  # when the line towards the client has sent its data

    async def pump(self, reader, writer, begin, from_client, asked):
        """Forwards one direction, and reads on while earlier data is delayed. `asked`: not empty while
        the client's bytes were the last ones on the connection."""
        loop = asyncio.get_running_loop()
        queue = asyncio.Queue()

        async def deliver():
            while True:
                at, data = await queue.get()
                await asyncio.sleep(at - loop.time())
                if not data:
                    break
                if not from_client:
                    self.turns += len(asked)
                asked[:] = [True] if from_client else []
                writer.write(data)
                await writer.drain()
            writer.write_eof()
        delivery = asyncio.create_task(deliver())
        data = b"."
        while data:
            try:
                data = await reader.read(1 << 16)
            except OSError:
                data = b""
            sent = max(loop.time(), begin)
            if self.bits and not from_client:
                sent = self.free_at = max(sent, self.free_at) + len(data) * 8 / self.bits
                # The data on its way is bounded, as on a real line.
                await asyncio.sleep(sent - loop.time())
            await queue.put((sent + self.seconds, data))
        try:
            await delivery
        except OSError:
            pass

    async def connect(self, reader, writer):
        """SYN, answer and ACK take three times the distance; the client may send after two."""
        self.connections += 1
        begin = asyncio.get_running_loop().time()
        await asyncio.sleep(3 * self.seconds)
        try:
            there = await asyncio.open_connection(self.address, writer.get_extra_info("sockname")[1])
        except OSError:
            writer.close()
            return
        asked = []
        await asyncio.gather(
            self.pump(reader, there[1], begin + 2 * self.seconds, True, asked),
            self.pump(there[0], writer, begin + 3 * self.seconds, False, asked))
        for end in (writer, there[1]):
            end.close()


async def main():
    address = sys.argv[1]
    control, first, last, milliseconds, megabits = (int(word) for word in sys.argv[2:])
    distance = Distance(address, milliseconds / 1e3, megabits * 1e6)
    for port in [control, *range(first, last + 1)]:
        await asyncio.start_server(distance.connect, "127.0.0.1", port)
    print("ready", flush=True)
    loop = asyncio.get_running_loop()
    while await loop.run_in_executor(None, sys.stdin.readline):
        print(distance.connections, distance.turns, flush=True)
        distance.connections = distance.turns = 0

asyncio.run(main())
