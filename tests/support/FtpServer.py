#!/usr/bin/python3
# An FTP server on 127.0.0.1: FtpServer.py PORT FOLDER. The user u with the password p may read and write. It knows PRET,
# and an active data connection may go to any of the client's addresses. Prints each command before it answers it.
import sys

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler, proto_cmds
from pyftpdlib.log import config_logging
from pyftpdlib.servers import FTPServer


class Handler(FTPHandler):
    proto_cmds = dict(proto_cmds, PRET=dict(perm=None, auth=True, arg=True, help='Syntax: PRET <SP> command.'))
    permit_foreign_addresses = True
    auth_failed_timeout = 0

    def pre_process_command(self, line, cmd, arg):
        print(line, flush=True)
        super().pre_process_command(line, cmd, arg)

    def ftp_PRET(self, line):
        self.respond('200 OK.')


port, folder = int(sys.argv[1]), sys.argv[2]
config_logging(level='ERROR')
Handler.authorizer = DummyAuthorizer()
Handler.authorizer.add_user('u', 'p', folder, perm='elradfmwMT')
FTPServer(('127.0.0.1', port), Handler).serve_forever()
