/**
 * The native module `tqreader`: reads resident identity cards and ICAO Doc 9303 passports. The application owns the
 * NFC connection and carries the card's commands and answers; the library owns the protocols and the network.
 *
 * Most applications use the class `TqReader` of this package instead, which turns all of this into promises.
 *
 * ```ts
 * import tqreader from 'libtqreader.so';
 * ```
 *
 * All functions are called on the thread that loaded the module. None of them throws: every failure is one of these
 * codes, or, when a server refused a request, the negative decimal reading of the status digits that it sent.
 *
 * | Code | Name | Meaning |
 * |---|---|---|
 * | 0 | OK | success |
 * | -1 | FAILED | the card refused a command, or its answer was not to be used |
 * | -13002 | BAD_SERIAL_NUMBER | the serial number is longer than 64 bytes or holds a byte of 0x81 or above |
 * | -13003 | BAD_APPID | the appid is missing or not 20 letters and digits; for a location request: not 20 or 7 characters |
 * | -13008 | MISSING_CALL | a needed call or value is missing |
 * | -13009 | OUT_OF_RANGE | a value is out of range |
 * | -16303 | QUERY_INFO_WITHOUT_A | query info: read mode 1 with a = 0 |
 * | -16304 | QUERY_INFO_WITH_C | query info: read mode 1 with c = 1 |
 * | -16305 | QUERY_INFO_A_AND_C | query info: read mode 2 with a not 0 and c = 1 |
 * | -20001 | CONNECT_FAILED | the decode server could not be reached |
 * | -20003 | PROBE_CONNECT_FAILED | the latency server could not be connected to |
 * | -20004 | PROBE_FAILED | the latency server's name is unknown, or an exchange with it failed or timed out |
 * | -22003 | EXCHANGE_FAILED | an exchange with the decode server or the location server failed or timed out |
 * | -33005 | REQUEST_NOT_BUILT | a request to a server could not be built |
 * | -35006 | RESPONSE_MALFORMED | a server's answer failed its checks |
 * | -35010 | NO_THREAD | the worker thread could not be created |
 * | -53001 | AUTHENTICATION_REFUSED | the passport refused to open; most often number or dates are not the printed ones |
 * | -93001 | NO_CARD_ANSWER | the card did not answer |
 * | -93003 | BAD_ARGUMENTS | getPassportInfo was not given three texts |
 * | -93005 | CARD_REFUSED | the card answered 69 86, or access control failed |
 * | -93006 | CARD_FAILED | the card's answer reported a failure or could not be opened |
 * | -99097 | CONNECT_DENIED | the connection to the decode server was denied |
 *
 * The three QUERY_INFO codes belong to a function of the native C interface that the module does not offer; the class
 * `ResultCode` of this package has all of them as constants.
 *
 * @packageDocumentation
 */

/**
 * What the card function is given, as JSON text: one command for the card.
 * For example `{ "cmd": "00A40000026002",  "serial_num": "2"}`.
 */
export interface CardCommandDocument {
  /** The command APDU in upper-case hexadecimal, at most 511 bytes. */
  cmd: string;
  /** Decimal number, 0 to 255, of the step that the command belongs to; goes back with the answer. */
  serial_num: string;
}

/** `data` of a successful result with flag 1. */
export interface ResultData {
  /** Business id that the decode server gave this read. */
  reqid: string;
  /**
   * What the decode server found in the document, with the server's own members; or, when it sent no such text,
   * `idType` (two decimal digits) and `backCardId` (upper-case hexadecimal) as far as it sent them. May be missing.
   */
  info?: Record<string, Object>;
}

/**
 * What the result function is given, as JSON text: the outcome of one read.
 * For example `{"code":0,"flag":1,"data":{"reqid":"R1","info":{"name":"..."}}}` or
 * `{"code":-93001, "flag":3, "data":"tqbizidR1"}`.
 */
export interface ResultDocument {
  /** 0 or more: success. Negative: one of the codes above, or a server's status. */
  code: number;
  /**
   * Of a success, 1: `data` is a {@link ResultData}; 2: `data` is the hexadecimal text of bytes as the server sent them.
   * Of a failure, 3: `data` is "tqbizid" and the read's business id; 0: the read got no business id, `data` is "".
   */
  flag: number;
  data: ResultData | string;
}

/** What the monitor function is given, as JSON text: the record of one read, for statistics and support. */
export interface MonitorDocument {
  /** Business id of the read. */
  reqid: string;
  /** Code of the read. */
  result_code: number;
  /** Milliseconds that the read took by the time function. */
  decode_times: number;
  /** Milliseconds that the first exchange with the decode server took by the time function. */
  time_delay: number;
  /**
   * Status word of the last card answer; 36864 (0x9000) when it was good, 0 when no answer came. Above 0xFFFF when an answer
   * of four bytes or more was not good: its first two bytes x 65536, and what its end tells.
   */
  nfc_err_code: number;
  /** First 32 bytes at most of the card command that failed, upper-case hexadecimal; "" when none did. */
  nfc_err_cmd: string;
  /** 0: identity card; 1: passport. */
  card_type: number;
  /** The serial number that `initSdk` was given. */
  device_id: string;
  /** The appid that `initSdk` was given. */
  appid: string;
  /** For each file of a passport its last status word, as in "com_str:9000;sod_str:9000;dg1_str:9000"; else "". */
  sod_file: string;
  /** Id of this card's stay on the phone, given by the decode server: 32 hexadecimal digits. */
  stickCard_id: string;
}

/** The functions of the native module, in their documented order. */
export interface TqReaderModule {
  /**
   * Configures the library. Needed once before the first read; may be called again between reads.
   *
   * @param appid        application id: 20 letters or digits, blanks around them are ignored
   * @param decodeMode   0 or 1: size of the last decode answer (0: the larger one)
   * @param readMode     1: less is read (two files of a card when they suffice, no portrait of a passport); 2: everything
   * @param envIdCode    environment of the decode server: 268, 52302 or 26814
   * @param file_path    not used
   * @param packageName  the application's package name, at most 1023 bytes; its SM3 digest is sent; "": nothing is sent
   * @param terId        terminal id; its low 8 bits are used
   * @param ip           name or IPv4 address of the decode server, at most 127 bytes
   * @param port         TCP port of the decode server, 0 to 65535
   * @param reqidType    version of the business id: 0 or 1
   * @param sn           serial number of the device, up to 64 bytes, each below 0x81; may be ""
   * @returns 0, -13002 (`sn`), -13003 (`appid`) or -13009 (any other value)
   */
  initSdk(appid: string, decodeMode: number, readMode: number, envIdCode: number, file_path: string,
    packageName: string, terId: number, ip: string, port: number, reqidType: number, sn: string): number;

  /** @returns always 0 */
  getBillingModel(): number;

  /**
   * Starts to read an identity card, and returns at once. The result arrives through the result function. A read that
   * is still running ends without a result.
   *
   * @returns 0: started; -13008 or the code of the last failed set-up call: `initSdk` or a callback is missing;
   *   -35010: no thread
   */
  getIdInfo(): number;

  /**
   * Starts to read a passport, and returns at once, as `getIdInfo` does. Blanks around the values are ignored; of a date no
   * more than 19 bytes are looked at.
   *
   * @param idNumber    document number: 1 to 20 letters and digits, without fillers
   * @param birthday    date of birth: YYMMDD
   * @param expiryDate  date of expiry: YYMMDD
   * @returns 0: started; as `getIdInfo`, and -13008: a value is empty; -13009: a value is malformed; -93003: not a text
   */
  getPassportInfo(idNumber: string, birthday: string, expiryDate: string): number;

  /**
   * Registers the time function. It must answer at once; the library waits 500 ms for it.
   *
   * @param callback  returns the time in milliseconds since 1970; not 0
   * @returns 0, or -13008 when `callback` is no function
   */
  registerTimestampCallback(callback: () => number): number;

  /**
   * Hands over a card's answer to a command of an identity-card read. Never blocks. Each command wants exactly one
   * answer; one that belongs to no running read is dropped.
   *
   * @param data        the answer with its status word, as hexadecimal text, up to 300 bytes; "" when there is none
   * @param serial_num  the number that came with the command
   * @param status      0, or -1: the exchange with the card failed
   */
  idCardHandler(data: string, serial_num: number, status: number): void;

  /**
   * Hands over a chip's answer to a command of a passport read, as `idCardHandler` does.
   *
   * @param data        the answer with its status word, as hexadecimal text, up to 300 bytes; "" when there is none
   * @param serial_num  the number that came with the command
   * @param status      0, or -1: the exchange with the chip failed
   */
  passportHandler(data: string, serial_num: number, status: number): void;

  /**
   * Registers the result function. It is called once per read. A superseded read does not call it, nor does one that was
   * cancelled before its result was being reported, see `cancelCard`; but a call may be on its way already.
   *
   * @param callback  gets a {@link ResultDocument} as JSON text
   * @returns 0, or -13008 when `callback` is no function
   */
  registerResultCallback(callback: (result: string) => void): number;

  /**
   * Registers the monitor function. It is called once per read that got as far as being authenticated by the decode
   * server, before the result function, and must answer at once; the library waits 500 ms for it.
   *
   * @param callback  gets a {@link MonitorDocument} as JSON text and returns the text, from "{" to "}" and at most 2000
   *   bytes, that is reported to the decode server: usually the one it got
   * @returns 0, or -13008 when `callback` is no function
   */
  registerMonitorCallback(callback: (record: string) => string): number;

  /**
   * Registers the card function. It must return at once; the answer to the command goes to `idCardHandler` or
   * `passportHandler` later. What it returns does not matter.
   *
   * @param callback  gets a {@link CardCommandDocument} as JSON text
   * @returns 0, or -13008 when `callback` is no function
   */
  registerCardCallback(callback: (command: string) => void): number;

  /**
   * Cancels the running read of one kind: its connection to the decode server is closed, and it ends without a result as
   * soon as it has got the answer that it waits for. A read that waits for its card is not woken: give it an answer with
   * status -1. Two kinds of read still call the result function: one that is being authenticated, with -20001 or -22003;
   * and one whose result is being reported (from the call of the monitor function on, while the record goes to the
   * server), with that result.
   *
   * @param type  0: identity card; 1: passport; any other value does nothing
   * @returns always 0
   */
  cancelCard(type: number): number;

  /**
   * Measures the way to a latency server on TCP port 9999. Blocks the calling thread for up to 10 seconds per round and
   * the time to connect.
   *
   * @param count  rounds, 1 to 5; 5 are made for any other number
   * @param ip     name or IPv4 address of the server, at most 1023 bytes
   * @returns average milliseconds of a round, 0 or more; or -20003 or -20004
   */
  getTimeDelay(count: number, ip: string): number;

  /**
   * Asks a location server over HTTPS where the NFC antenna sits on a phone. Blocks the calling thread: up to 5 seconds for
   * each step on the network, 30 in all, and the time to resolve the name. The server's certificate is not verified.
   *
   * @param appid        application id, 20 or 7 characters
   * @param envCode      environment of the location server: 268, 52302 or 26814
   * @param ip           name or IPv4 address of the server, at most 127 bytes
   * @param port         its TCP port, 0 to 65535
   * @param manufacture  manufacturer of the phone, up to 64 bytes
   * @param marketName   market name of the phone, up to 64 bytes
   * @param callback     returns the time in milliseconds since 1970; called during the call
   * @returns the location, 0 to 255, as the server defines it; or -13003, -13009, -22003, -33005, -35006 or the server's
   *   status. 0 as well, which reads as location 0, when `callback` is no function
   */
  getDeviceNFCLocation(appid: string, envCode: number, ip: string, port: number, manufacture: string,
    marketName: string, callback: () => number): number;
}

declare const tqreader: TqReaderModule;
export default tqreader;
