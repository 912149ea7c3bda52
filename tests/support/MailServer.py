#!/usr/bin/python3
# A mail server on 127.0.0.1: MailServer.py PORT. A client may log in as the user u with the password p. Prints the
# arguments of each MAIL and RCPT command as they come, and each message that it took, between "DATA" and ".".
import asyncio
import sys

from aiosmtpd.smtp import SMTP, AuthResult


class Server(SMTP):
    async def smtp_MAIL(self, arg):
        print('MAIL', arg, flush=True)
        # The base class refuses the AUTH parameter, which a server that offers logins must take.
        words = [word for word in (arg or '').split() if not word.upper().startswith('AUTH=')]
        await super().smtp_MAIL(' '.join(words))

    async def smtp_RCPT(self, arg):
        print('RCPT', arg, flush=True)
        await super().smtp_RCPT(arg)


class Handler:
    async def handle_DATA(self, server, session, envelope):
        print('DATA', envelope.content.decode(), '.', sep='\n', flush=True)
        return '250 OK'


def authenticate(server, session, envelope, mechanism, data):
    # "Not handled" leaves the refusal to the base class; else a refused client would wait for an answer.
    return AuthResult(success=(data.login, data.password) == (b'u', b'p'), handled=False)


def make_session():
    return Server(Handler(), hostname='localhost', authenticator=authenticate, auth_require_tls=False)


async def serve(port):
    server = await asyncio.get_running_loop().create_server(make_session, '127.0.0.1', port)
    await server.serve_forever()


asyncio.run(serve(int(sys.argv[1])))
