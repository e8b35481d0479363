// The ways in which a console can be had, as numbers on the wire and in words.

export type ModeNumber = 0 | 1 | 2 | 3 | 4;

export interface Mode {
  number: ModeNumber;
  label: string;
  tells: string;
}

/** 0 is not attached: what is shown then comes from the journal. The others are the daemon's. */
export const kModes: readonly Mode[] = [
  { number: 0, label: 'Watch', tells: 'You watch, and the other users are not told of it.' },
  {
    number: 1, label: 'Read-only',
    tells: 'You watch as a user whom the others see. What you type is thrown away.',
  },
  { number: 2, label: 'Shared', tells: 'You type, together with other shared users.' },
  {
    number: 3, label: 'Exclusive',
    tells: 'You are the only one who types. Only while no shared or exclusive user is there.',
  },
  {
    number: 4, label: 'Exclusive until asked',
    tells: 'You are the only one who types, until the next user asks for the console. '
      + 'What it prints meanwhile is not logged.',
  },
];

export function modeOf(number: number): Mode | undefined {
  return kModes.find((mode) => mode.number === number);
}

/** Whether what is typed in this mode gets to the console. */
export function types(number: ModeNumber): boolean {
  return number >= 2;
}
