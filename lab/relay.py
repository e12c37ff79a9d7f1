"""Brings the host's browser to a port inside a node: the listening socket that it inherits is the host's."""
import asyncio
import socket
import sys


async def pump(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
    try:
        while data := await reader.read(65536):
            writer.write(data)
            await writer.drain()
    except ConnectionError:
        pass
    finally:
        writer.close()


async def connect(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
    try:
        inner_reader, inner_writer = await asyncio.open_connection("127.0.0.1", int(sys.argv[2]))
    except OSError:
        writer.close()
        return
    await asyncio.gather(pump(reader, inner_writer), pump(inner_reader, writer))


async def main() -> None:
    server = await asyncio.start_server(connect, sock=socket.socket(fileno=int(sys.argv[1])))
    await server.serve_forever()


try:
    asyncio.run(main())
except KeyboardInterrupt:
    pass
