// Who is logged in. Kept for the tab, so that a reload goes on; gone with it.
import { signal } from '@preact/signals'

export interface Login {
  sid: string
  user: string
  admin: boolean
  enrol?: boolean | undefined // must set up a second factor before anything else
  since?: number // milliseconds, of the login
}

const PLACE = 'ormel.session'

function stored(): Login | null {
  try {
    const found = JSON.parse(sessionStorage.getItem(PLACE) ?? 'null') as Login | null
    return found && typeof found.sid === 'string' && typeof found.user === 'string' ? found : null
  } catch {
    return null
  }
}

class Session {
  readonly login = signal<Login | null>(stored())
  readonly sid = signal(this.login.peek()?.sid ?? '')
  readonly expired = signal(false) // somebody was logged in, and the page waits for a new session
  private waiting: (() => void)[] = []

  begin(login: Login): void {
    sessionStorage.setItem(PLACE, JSON.stringify(login))
    this.login.value = login
    this.sid.value = login.sid
    this.expired.value = false
    const ready = this.waiting
    this.waiting = []
    for (const go of ready) go()
  }

  end(): void {
    sessionStorage.removeItem(PLACE)
    this.login.value = null
    this.sid.value = ''
    this.expired.value = false
    this.waiting = [] // what waited belongs to pages that are gone
  }

  // Comes back once there is another session than the one that was refused.
  renewed(refused: string): Promise<void> {
    if (this.sid.peek() !== refused && this.sid.peek() !== '') return Promise.resolve()
    if (this.login.peek()) this.expired.value = true
    return new Promise(go => this.waiting.push(go))
  }
}

export const session = new Session()
