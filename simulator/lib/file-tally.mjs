// Makes a line per file of the many steps in which a passport's files are read: a SELECT, and READs of a few bytes each.

const kOddRead = 0xb1; // READ BINARY whose offset stands in its data, in front of a length that travels in plain as well
const kOffsetAt = 2; // in READ BINARY; the expected length follows, or, in a protected one, 0D 97 01 and the length
const kLengthAt = 7;
const kDataObjectAt = 5;

/** How far into its file a READ BINARY under secure messaging goes (ISO/IEC 7816-4: DO97 is in plain); `before` is where it began. */
function endOfRead(text, before) {
  const command = Buffer.from(text, 'hex');
  if (command[1] !== kOddRead) return command.readUInt16BE(kOffsetAt) + command.at(command.length > kLengthAt ? kLengthAt : -1);
  const length = command[kDataObjectAt + 2 + command[kDataObjectAt + 1] + 2]; // of DO97, behind DO85
  return before + length - (length > 0x81 ? 3 : 2); // without the header of DO53
}

export class FileTally {
  #current = null;
  #onStep;
  #onFile;

  /**
   * @param {(step: object) => void} onStep  gets every step that does not belong to a file
   * @param {(file: object) => void} onFile  gets { name, at, ms, bytes, commands, status }: bytes and commands that it
   *   took, milliseconds from the first command to the last answer, and the last status
   */
  constructor(onStep, onFile) {
    this.#onStep = onStep;
    this.#onFile = onFile;
  }

  /** A step of the reader, in order. */
  step(step) {
    const [verb, name] = step.name.split(' ');
    if (verb === 'READ' && this.#current?.name === name) {
      this.#count(step, endOfRead(step.command, this.#current.bytes));
    } else {
      this.flush();
      if (verb !== 'SELECT' || ['APPLICATION', 'MF'].includes(name)) this.#onStep(step);
      else this.#begin(name, step);
    }
  }

  #begin(name, step) {
    this.#current = { name, at: step.at, bytes: 0, commands: 0 };
    this.#count(step, 0);
  }

  #count({ at, ms, answer }, bytes) {
    const { commands, at: began } = this.#current;
    Object.assign(this.#current, { bytes, commands: commands + 1, ms: Math.round(at + ms - began), status: answer.slice(-4) });
  }

  /** No more comes for the present file. */
  flush() {
    if (this.#current) this.#onFile(this.#current);
    this.#current = null;
  }
}
