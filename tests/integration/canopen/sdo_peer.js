// SPDX-License-Identifier: Apache-2.0
// Lets the npm package `canopen` take part in our bus: its frames travel through a UNIX socket, beside the commands by
// which the test tells it what to do.
//
//   node sdo_peer.js SOCKET MODULES
//
// Every message, in both directions: length of what follows (32 bits, little endian), kind (1 byte), payload.
//   kind 0  a frame: identifier (16 bits, little endian), then its data bytes
//   kind 1  a command or its result as JSON; one result a command, in order
'use strict';

const net = require('net');

const [socketPath, modules] = process.argv.slice(2);

const { Device, DataType, ObjectType } = require('./load_canopen')(modules);

const socket = net.connect(socketPath);

function write(kind, payload) {
    const head = Buffer.alloc(5);
    head.writeUInt32LE(payload.length + 1);
    head.writeUInt8(kind, 4);
    socket.write(Buffer.concat([head, payload]));
}

function writeFrame({ id, data }) {
    const head = Buffer.alloc(2);
    head.writeUInt16LE(id);
    write(0, Buffer.concat([head, data]));
}

let device = null;

const commands = {
    // A node with an SDO server for the objects that follow.
    server({ node }) {
        device = new Device({ id: node });
        device.addListener('message', writeFrame);
        device.eds.addSdoServerParameter(1, 0x580 + node, 0x600 + node);
        device.protocol.sdoServer.setBlockInterval(0);
        device.start();
    },

    // An SDO client of a node.
    client({ node }) {
        device = new Device({ id: 1 });
        device.addListener('message', writeFrame);
        device.eds.addSdoClientParameter(node, 0x600 + node, 0x580 + node);
        device.start();
    },

    // Gives the server an object.
    define({ index, type, hex, access }) {
        const domain = type === 'DOMAIN';
        const entry = device.eds.addEntry(index, {
            parameterName: `object ${index.toString(16)}`,
            objectType: domain ? ObjectType.DOMAIN : ObjectType.VAR,
            dataType: DataType[type],
            accessType: access || 'rw',
        });
        entry.raw = Buffer.from(hex, 'hex');
    },

    get({ index }) {
        return { hex: device.eds.getEntry(index).raw.toString('hex') };
    },

    async upload({ node, index, subindex, block }) {
        try {
            const data = await device.sdo.upload({
                serverId: node, index, subIndex: subindex, blockTransfer: block, timeout: 10000,
                dataType: DataType.DOMAIN,
            });
            return { hex: Buffer.from(data).toString('hex') };
        } catch (error) {
            return { code: error.code === undefined ? String(error) : error.code };
        }
    },

    async download({ node, index, subindex, hex, block }) {
        try {
            await device.sdo.download({
                serverId: node, index, subIndex: subindex, data: Buffer.from(hex, 'hex'), blockTransfer: block,
                timeout: 10000, blockInterval: 0,
            });
            return {};
        } catch (error) {
            return { code: error.code === undefined ? String(error) : error.code };
        }
    },
};

let pending = Buffer.alloc(0);
let queue = Promise.resolve();

socket.on('data', (chunk) => {
    pending = Buffer.concat([pending, chunk]);
    while (pending.length >= 4 && pending.length >= 4 + pending.readUInt32LE()) {
        const end = 4 + pending.readUInt32LE();
        const kind = pending[4];
        const payload = Buffer.from(pending.subarray(5, end));
        pending = pending.subarray(end);
        if (kind === 0) {
            device.receive({ id: payload.readUInt16LE(), data: payload.subarray(2) });
        } else {
            const command = JSON.parse(payload.toString());
            queue = queue.then(async () => {
                const result = await commands[command.do](command);
                write(1, Buffer.from(JSON.stringify(result || {})));
            });
        }
    }
});
socket.on('end', () => process.exit(0));
socket.on('error', () => process.exit(1));
