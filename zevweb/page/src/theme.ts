// Light and dark: as the system says, until the user says otherwise. Also the other settings that
// this browser keeps.

import type { ITheme } from '@xterm/xterm';

export type Theme = 'system' | 'light' | 'dark';
const kThemes: readonly Theme[] = ['system', 'light', 'dark'];

const kLightScreen: ITheme = {
  background: '#ffffff', foreground: '#16191d', cursor: '#0b5cad', cursorAccent: '#ffffff',
  selectionBackground: '#b6d4f2',
  black: '#16191d', red: '#b3141d', green: '#17692f', yellow: '#855000', blue: '#0b5cad',
  magenta: '#8a2c8a', cyan: '#006b75', white: '#6b737b', brightBlack: '#555d66',
  brightRed: '#cc2a30', brightGreen: '#217a3b', brightYellow: '#8f5a00', brightBlue: '#1668bd',
  brightMagenta: '#9a3f9a', brightCyan: '#007782', brightWhite: '#3a4047',
};
const kDarkScreen: ITheme = {
  background: '#101316', foreground: '#e6e9ec', cursor: '#6fb3f7', cursorAccent: '#101316',
  selectionBackground: '#2c4f73',
};

const system = window.matchMedia('(prefers-color-scheme: dark)');
const listeners = new Set<() => void>();

function kept(key: string): string | null {
  try {
    return localStorage.getItem(key);
  } catch {
    return null;  // a browser that keeps nothing
  }
}

function keep(key: string, value: string): void {
  try {
    localStorage.setItem(key, value);
  } catch {
    // It counts until the page is left.
  }
}

let theme: Theme = kThemes.find((one) => one === kept('theme')) ?? 'system';
let reader = kept('screen-reader') === 'on';

function isDark(): boolean {
  return theme === 'dark' || (theme === 'system' && system.matches);
}

function apply(): void {
  document.documentElement.classList.toggle('dark', isDark());
  for (const listener of listeners) listener();
}

export const settings = {
  theme: () => theme,
  screenReader: () => reader,
  screenTheme: () => (isDark() ? kDarkScreen : kLightScreen),

  nextTheme(): Theme {
    theme = kThemes[(kThemes.indexOf(theme) + 1) % kThemes.length] ?? 'system';
    keep('theme', theme);
    apply();
    return theme;
  },

  setScreenReader(on: boolean): void {
    reader = on;
    keep('screen-reader', on ? 'on' : 'off');
    apply();
  },

  /** Calls the listener at each change until the function that it returns is called. */
  onChange(listener: () => void): () => void {
    listeners.add(listener);
    return () => listeners.delete(listener);
  },
};

system.addEventListener('change', apply);
apply();
